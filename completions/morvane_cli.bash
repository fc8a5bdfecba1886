# bash completion for morvane_cli. Needs nothing but bash itself.

# The installed apps that can be read: the identifiers in the containers' metadata. In the binary form
# a length byte stands before one, and may be a letter; identifiers begin with a small one.
_morvane_cli_bundles() {
  find /var/mobile/Containers/Data/Application -mindepth 2 -maxdepth 2 -type f \
    -name .com.apple.mobile_container_manager.metadata.plist -exec cat {} + 2>/dev/null |
    LC_ALL=C tr -cs 'A-Za-z0-9.-' '\n' |
    sed -n 's/^.*MCMMetadata[A-Za-z]*[Q-Z]//; s/^[^a-z]*\([a-z][A-Za-z0-9-]*\.[A-Za-z0-9.-]*[A-Za-z0-9]\)$/\1/p' |
    grep -vE '^(com\.apple\.Mobile(Installation|ContainerManager)\.|www\.)|\.dtd$' | sort -u
}

_morvane_cli_backups() {
  local path
  for path in /var/mobile/MorvaneBackups/*.morvane; do
    path=${path##*/}
    [[ ! $path =~ [^A-Za-z0-9._-] ]] && printf '%s\n' "$path"
  done
}

# The switches that the argument does not name yet.
_morvane_cli_flags() {
  local flag
  for flag in appdata sys receipt; do
    [[ ,$1 == *",$flag="*,* ]] || printf '%s\n' "$flag=0" "$flag=1"
  done
}

_morvane_cli() {
  # Not COMP_WORDS: it is cut at "=", too.
  local line=${COMP_LINE:0:COMP_POINT} words current head='' candidates=''
  read -ra words <<<"$line"
  [[ $line == *[[:blank:]] ]] && words+=('')
  current=${words[-1]}
  case $((${#words[@]} - 1)):${words[1]-} in
    1:*) candidates='reset backup restore removebackup' ;;
    2:reset | 2:backup)
      [[ $current == *,* ]] && head=${current%,*},
      candidates=$(_morvane_cli_bundles) ;;
    3:reset) candidates='kill clear' ;;
    4:reset)
      [[ $current == *,* ]] && head=${current%,*},
      candidates=$(_morvane_cli_flags "$current") ;;
    3:backup) candidates=$(_morvane_cli_backups | sed 's/\.morvane$//') ;;
    2:restore) candidates=$(_morvane_cli_backups) ;;
    2:removebackup) candidates="$(_morvane_cli_backups) ALL" ;;
  esac
  # The words hold no blanks and no patterns, so they can be split and need no quotes.
  mapfile -t COMPREPLY < <(compgen -P "$head" -W "$candidates" -- "${current#"$head"}")
  if [[ $current == *=* && $COMP_WORDBREAKS == *=* ]]; then
    COMPREPLY=("${COMPREPLY[@]#"${current%=*}="}")
  fi
}

complete -F _morvane_cli morvane_cli
