// The root of the program's exceptions: what the system layer and the transport throw.
//
// An exception holds copies of its texts in fixed arrays, so that throwing one needs no memory beyond the exception
// itself; a longer text is cut at 255 bytes. Derived classes add nothing but their type name.
#ifndef KESTRUN_RUNTIME_BASE_EXCEPTION_H_
#define KESTRUN_RUNTIME_BASE_EXCEPTION_H_

#include <exception>
#include <string>

#include "runtime/base/types.h"

namespace kestrun {

class SystemException : public std::exception {
 public:
  static constexpr i32 kNoCode = -1;

  SystemException(const std::string& message, const std::string& typeName);
  SystemException(i32 code, const std::string& message, const std::string& typeName);
  SystemException(const SystemException&) = default;
  SystemException& operator=(const SystemException&) = default;
  ~SystemException() override;

  const char* what() const noexcept override { return message_; }
  virtual const char* GetTypeName() const noexcept { return typeName_; }

  // An error number of the system, or kNoCode.
  i32 GetCode() const { return code_; }

 private:
  static constexpr u32 kTextSize = 256;

  i32 code_;
  char message_[kTextSize];
  char typeName_[kTextSize];
};

namespace PLV {

// The plain form, for failures that have no class of their own.
class Exception : public SystemException {
 public:
  Exception(u32 code, const std::string& message) : SystemException(static_cast<i32>(code), message, "Exception") {}
};

}  // namespace PLV

}  // namespace kestrun

#endif  // KESTRUN_RUNTIME_BASE_EXCEPTION_H_
