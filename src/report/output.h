#pragma once

#include <string_view>

namespace morvane {

enum class Stream { standardOutput, standardError };

/// Makes the process's streams safe to use for the whole run: a standard descriptor that is closed
/// is opened on /dev/null, so that no file of ours can take its number and receive our output, and
/// writing to a pipe without a reader, or beyond the caller's limit on the size of files, is no
/// longer fatal. Call once, first.
void prepareStreams();

/// Writes `text` at once, unbuffered: it has left the process when this returns, however the
/// process ends later. A stream that takes no more is given up in silence; the work goes on.
void writeOut(Stream stream, std::string_view text);

}  // namespace morvane
