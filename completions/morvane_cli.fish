# fish completion for morvane_cli.

# The installed apps that can be read: the identifiers in the containers' metadata. In the binary form
# a length byte stands before one, and may be a letter; identifiers begin with a small one.
function __morvane_cli_bundles
    find /var/mobile/Containers/Data/Application -mindepth 2 -maxdepth 2 -type f \
        -name .com.apple.mobile_container_manager.metadata.plist -exec cat '{}' + 2>/dev/null |
        LC_ALL=C tr -cs 'A-Za-z0-9.-' '\n' |
        sed -n 's/^.*MCMMetadata[A-Za-z]*[Q-Z]//; s/^[^a-z]*\([a-z][A-Za-z0-9-]*\.[A-Za-z0-9.-]*[A-Za-z0-9]\)$/\1/p' |
        grep -vE '^(com\.apple\.Mobile(Installation|ContainerManager)\.|www\.)|\.dtd$' | sort -u
end

function __morvane_cli_backups
    for path in /var/mobile/MorvaneBackups/*.morvane
        string match -r '^[A-Za-z0-9._-]+$' -- (string replace -r '.*/' '' -- $path)
    end
end

# The pieces of the current word that are there already, with the comma.
function __morvane_cli_head
    string match -r '^.*,' -- (commandline -ct)
end

function __morvane_cli_flags
    for flag in 'appdata data container and app groups' "sys the system's traces" \
            'receipt App Store receipts'
        set -l parts (string split -m 1 ' ' -- $flag)
        string match -q "*,$parts[1]=*" -- ,(__morvane_cli_head); and continue
        printf '%s\n' "$parts[1]=0"\t"leave $parts[2]" "$parts[1]=1"\t"remove $parts[2]"
    end
end

function __morvane_cli_candidates
    set -l words (commandline -opc)
    set -l head (__morvane_cli_head)
    switch (count $words):"$words[2]"
        case '1:*'
            printf '%s\n' reset\t'return apps to the state of a fresh install' \
                backup\t"copy apps' data into a backup" restore\t"put a backup's data back" \
                removebackup\t'delete a backup, or all'
        case 2:reset 2:backup
            printf '%s\n' "$head"(__morvane_cli_bundles)
        case 3:reset
            printf '%s\n' kill\t'stop the app before and after' clear\t'leave its processes alone'
        case 4:reset
            printf '%s\n' "$head"(__morvane_cli_flags)
        case 3:backup
            string replace -r '\.morvane$' '' -- (__morvane_cli_backups)
        case 2:restore
            __morvane_cli_backups
        case 2:removebackup
            __morvane_cli_backups
            echo ALL
    end
end

complete -c morvane_cli -f -a '(__morvane_cli_candidates)'
