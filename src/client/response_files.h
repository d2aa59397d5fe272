#ifndef KESTRUN_CLIENT_RESPONSE_FILES_H_
#define KESTRUN_CLIENT_RESPONSE_FILES_H_

#include <cstddef>
#include <string>

namespace kestrun {

// Expands response files in the arguments of a tool.
//
// The limits on one expansion, so that files that name each other do not expand for ever.
struct ResponseFileLimits {
  int maxExpansions = 1000;
  std::size_t maxBytes = std::size_t{64} << 20;
};

// Replaces each @file or @"file" by the file's text, also in text that came from a file. The '@' and each line end of a
// file become blanks. An '@' is recognised anywhere, also in the middle of a word.
//
// Never fails: a file that can't be opened, or that exceeds the limits, gives an error line on the standard error
// stream, and the text is returned as it is at that point.
std::string ExpandResponseFiles(const std::string& text, const ResponseFileLimits& limits = {});

}  // namespace kestrun

#endif  // KESTRUN_CLIENT_RESPONSE_FILES_H_
