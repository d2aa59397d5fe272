// File names, with the rules by which the program takes them apart, joins and compares them.
//
// A path is text, kept as it was given without quotes around it; "\" and "/" are both separators, everywhere. Split
// takes it apart into four parts: for "C:\a\b\file.tar.gz" the root "C:\", the directories "a" and "b", the name
// "file.tar" and the extension ".gz". A root is "", "\", "C:", "C:\" or "\\server\".
//
// BasicPath has two forms, Path and WidePath, which call the A and W functions of the system. Nothing here throws: a
// lookup that fails gives its input, a question or a creation gives false. Names of 260 characters and more count as
// failures of the system.
#ifndef KESTRUN_RUNTIME_FILES_PATH_H_
#define KESTRUN_RUNTIME_FILES_PATH_H_

#include <string>
#include <vector>

#include "platform/win32.h"
#include "runtime/base/types.h"

// The system's headers define a macro of this name, which is also the name of a function below.
#undef GetCurrentDirectory

namespace kestrun {

template <class C>
class BasicPath {
 public:
  using Text = std::basic_string<C>;

  BasicPath() = default;
  // A text that begins with a double quote loses its first and its last character.
  BasicPath(const C* text) : text_(WithoutQuotes(text)) {}
  BasicPath(const Text& text) : text_(WithoutQuotes(text)) {}

  // Appends, with a "\" between the two unless there is a separator; a rooted right side is appended like any other.
  BasicPath& operator/=(const BasicPath& right);
  friend BasicPath operator/(const BasicPath& left, const BasicPath& right) {
    BasicPath result(left);
    result /= right;
    return result;
  }

  // Equal if they name the same file: as text with "." and ".." resolved, and separators and case ignored, or by the
  // short names of existing files.
  friend bool operator==(const BasicPath& left, const BasicPath& right) { return left.IsSameAs(right); }

  const Text& ToString() const { return text_; }
  const C* c_str() const { return text_.c_str(); }
  u32 GetLength() const { return static_cast<u32>(text_.size()); }
  bool IsEmpty() const { return text_.empty(); }

  // "\x", "/x", "C:\x"; neither "C:" nor "C:x".
  bool IsAbsolute() const;
  // A file or a directory.
  bool Exists() const;
  bool IsDirectory() const;

  // Root and directories, with a "\" at the end unless empty.
  BasicPath GetDirectory() const;
  // Name and extension.
  Text GetLeaf() const;
  // The leaf up to its last dot.
  Text GetBaseName() const;
  // As it is on the disk.
  BasicPath GetLongName() const;
  // With "\" in place of the root.
  BasicPath WithoutRoot() const;
  // In double quotes, with every separator turned into `separator`.
  Text GetQuoted(C separator) const;

  // Makes the directory and its parents. After a failure the system's last error says why.
  bool CreateDirectories() const;
  // The same for all but the last component.
  bool CreateParentDirectories() const;

 private:
  static Text WithoutQuotes(const Text& text);
  bool IsSameAs(const BasicPath& other) const;

  Text text_;
};

using Path = BasicPath<char>;
using WidePath = BasicPath<wchar_t>;

// Times are file times as one number: 100 ns units since the year 1601.
struct FileInfo {
  u64 creationTime = 0;
  u64 accessTime = 0;
  u64 writeTime = 0;
  u64 size = 0;
};

// The result of GetAttributes for a path that does not exist.
inline constexpr u32 kNoAttributes = 0xFFFFFFFF;

template <class C>
void Split(const BasicPath<C>& path, std::basic_string<C>& root, std::vector<std::basic_string<C>>& directories,
           std::basic_string<C>& name, std::basic_string<C>& extension);

template <class C>
BasicPath<C> Join(const std::basic_string<C>& root, const std::vector<std::basic_string<C>>& directories,
                  const std::basic_string<C>& name, const std::basic_string<C>& extension);

// Without "." and ".." among the directories; a rooted path without a drive gets that of the current directory. A
// relative path stays relative.
template <class C>
BasicPath<C> Canonicalise(const BasicPath<C>& path);

// The attributes, kNoAttributes on failure; `info` may be null.
template <class C>
u32 GetAttributes(const BasicPath<C>& path, FileInfo* info = nullptr);

// Empty on failure.
template <class C = char>
BasicPath<C> GetCurrentDirectory();

// True if it exists afterwards, as a directory or already as anything else.
template <class C>
bool MakeDirectory(const BasicPath<C>& path);

// Adds what is in `directory` and matches `pattern` to `entries`, in the system's order. False if nothing matches or
// the directory can not be read.
template <class C>
bool ListDirectory(const BasicPath<C>& directory, const std::basic_string<C>& pattern,
                   std::vector<BasicPath<C>>& entries);
inline bool ListDirectory(const Path& directory, const char* pattern, std::vector<Path>& entries) {
  return ListDirectory(directory, std::string(pattern), entries);
}

// Below, equal to or above 0, by the text alone.
template <class C>
int ComparePaths(const BasicPath<C>& left, const BasicPath<C>& right, bool ignoreCase);

template <class C>
BasicPath<C> GetShortName(const BasicPath<C>& path);
template <class C>
BasicPath<C> GetLongName(const BasicPath<C>& path);
template <class C>
BasicPath<C> GetFullPath(const BasicPath<C>& path);

// The path behind a substituted drive; a path on any other drive, or on none, unchanged.
template <class C>
BasicPath<C> ResolveSubst(const BasicPath<C>& path);

// The path with its drive replaced by the device's name.
template <class C>
BasicPath<C> ToDevicePath(const BasicPath<C>& path);

}  // namespace kestrun

#endif  // KESTRUN_RUNTIME_FILES_PATH_H_
