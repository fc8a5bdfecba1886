#include "report/log.h"

#include "report/output.h"

namespace morvane {
namespace {

bool isPlaceholder(std::string_view text) {
  return text.size() >= 2 && text[0] == '%' && (text[1] == '@' || text[1] == 'd' || text[1] == 's');
}

}  // namespace

std::string formatMessage(std::string_view format,
                          std::initializer_list<MessageArgument> arguments) {
  std::string message;
  auto argument = arguments.begin();
  while (!format.empty()) {
    if (isPlaceholder(format) && argument != arguments.end()) {
      message += argument->text();
      ++argument;
      format.remove_prefix(2);
    } else {
      message += format.front();
      format.remove_prefix(1);
    }
  }
  return message;
}

void logMessage(std::string_view format, std::initializer_list<MessageArgument> arguments) {
  std::string line = "[morvane_cli] ";
  line += formatMessage(format, arguments);
  line += '\n';
  writeOut(Stream::standardError, line);
}

}  // namespace morvane
