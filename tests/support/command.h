#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace morvane::test {

/// How one run of a command ended and what it wrote. `status` is the exit status, or 128 + the
/// signal that ended it.
struct Outcome {
  int status = -1;
  std::string out;
  std::string err;

  friend bool operator==(const Outcome&, const Outcome&) = default;
  friend std::ostream& operator<<(std::ostream& stream, const Outcome& outcome);
};

enum class Ends { open, closed, brokenPipe };

struct RunOptions {
  Ends out = Ends::open;          // what the command finds as its standard output...
  Ends err = Ends::open;          // ...and standard error
  std::function<void()> inChild;  // limits, umask, identity: between fork and exec
  int timeoutSeconds = 60;
};

/// Runs `words` and collects both streams at once. A command that does not end in time is killed
/// and fails the test.
Outcome runCommand(const std::vector<std::string>& words, const RunOptions& options = {});

/// Runs the built morvane_cli with `arguments`.
Outcome cli(std::vector<std::string> arguments, const RunOptions& options = {});

/// Likewise, its arguments being the pieces of `line` between the separators, empty ones included.
Outcome cliLine(std::string_view line, char separator = ' ');

/// A process called `name` that sleeps until someone kills it.
class Bystander {
 public:
  explicit Bystander(const std::string& name);
  ~Bystander();
  Bystander(Bystander&& other) noexcept;
  Bystander(const Bystander&) = delete;
  Bystander& operator=(const Bystander&) = delete;

  /// Whether it still runs. One that was killed is gone when the killer's call has returned.
  [[nodiscard]] bool alive() const;

 private:
  int pid_ = -1;
};

}  // namespace morvane::test
