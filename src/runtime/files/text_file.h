// A whole file as text.
#ifndef KESTRUN_RUNTIME_FILES_TEXT_FILE_H_
#define KESTRUN_RUNTIME_FILES_TEXT_FILE_H_

#include <string>

#include "runtime/base/types.h"
#include "runtime/files/path.h"

namespace kestrun {

// Reads a whole file. `text` and `size` may be null; `size` is in bytes. On failure false, with the reason in
// `*error`.
bool ReadTextFile(const Path& path, std::string* text, u32* size, std::string* error);

}  // namespace kestrun

#endif  // KESTRUN_RUNTIME_FILES_TEXT_FILE_H_
