#include "runtime/files/text_file.h"

#include <optional>

#include "runtime/files/mapped_file.h"

namespace kestrun {

bool ReadTextFile(const Path& path, std::string* text, u32* size, std::string* error) {
  std::optional<MappedFile> file;
  try {
    file.emplace(path, MappedFile::kReadOnly);
  } catch (const MappedFileException&) {
    *error = "Could not open mapped file";
    return false;
  }
  try {
    // An empty file can't be mapped, so its length is looked at first.
    const u32 length = file->GetSize();
    if (size != nullptr) *size = length;
    if (text == nullptr) return true;
    text->clear();
    if (length > 0) {
      const rc_ptr<MappedFile::ViewImpl> view = file->CreateView(0, MappedFile::kWholeSize, false);
      text->assign(static_cast<const char*>(view->GetData()), length);
    }
    return true;
  } catch (const MappedFileException& exception) {
    *error = "Err=" + std::to_string(exception.GetCode()) + ", msg=" + exception.what();
    return false;
  }
}

}  // namespace kestrun
