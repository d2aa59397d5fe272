// Thrown for a line in a section of a settings file that is no setting.
//
// IniFile catches it, so it is no failure of the system and not of the SystemException family. The text is a copy in
// the object, so that copying it can't fail.
#ifndef KESTRUN_RUNTIME_FILES_INI_FORMAT_EXCEPTION_H_
#define KESTRUN_RUNTIME_FILES_INI_FORMAT_EXCEPTION_H_

#include <exception>

#include "runtime/base/types.h"

namespace kestrun {

class IniFormatException : public std::exception {
 public:
  // `lineNumber` counts from 0; the message is cut at 63 characters.
  IniFormatException(u32 lineNumber, const char* message);
  const char* what() const noexcept override { return message_; }
  u32 GetLineNumber() const { return lineNumber_; }

 private:
  u32 lineNumber_;
  char message_[64];
};

}  // namespace kestrun

#endif  // KESTRUN_RUNTIME_FILES_INI_FORMAT_EXCEPTION_H_
