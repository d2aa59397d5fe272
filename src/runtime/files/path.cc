#include "runtime/files/path.h"

#include <algorithm>
#include <cstring>
#include <cwchar>

namespace kestrun {

namespace {

// The functions of the system under one name for their A and W forms, so that the code below is written once.
template <class C>
struct System;

template <>
struct System<char> {
  using FindData = WIN32_FIND_DATAA;
  static BOOL Attributes(const char* path, WIN32_FILE_ATTRIBUTE_DATA* data) {
    return GetFileAttributesExA(path, GetFileExInfoStandard, data);
  }
  static BOOL Create(const char* path) { return CreateDirectoryA(path, nullptr); }
  static DWORD CurrentDirectory(DWORD size, char* buffer) { return ::GetCurrentDirectoryA(size, buffer); }
  static DWORD LongName(const char* path, char* buffer, DWORD size) { return GetLongPathNameA(path, buffer, size); }
  static DWORD ShortName(const char* path, char* buffer, DWORD size) { return GetShortPathNameA(path, buffer, size); }
  static DWORD FullName(const char* path, char* buffer, DWORD size) {
    return GetFullPathNameA(path, size, buffer, nullptr);
  }
  static DWORD DosDevice(const char* drive, char* buffer, DWORD size) { return QueryDosDeviceA(drive, buffer, size); }
  static HANDLE FindFirst(const char* pattern, FindData* data) { return FindFirstFileA(pattern, data); }
  static BOOL FindNext(HANDLE search, FindData* data) { return FindNextFileA(search, data); }
  static int Compare(const char* left, const char* right) { return std::strcmp(left, right); }
  static int CompareNoCase(const char* left, const char* right) { return _stricmp(left, right); }
};

template <>
struct System<wchar_t> {
  using FindData = WIN32_FIND_DATAW;
  static BOOL Attributes(const wchar_t* path, WIN32_FILE_ATTRIBUTE_DATA* data) {
    return GetFileAttributesExW(path, GetFileExInfoStandard, data);
  }
  static BOOL Create(const wchar_t* path) { return CreateDirectoryW(path, nullptr); }
  static DWORD CurrentDirectory(DWORD size, wchar_t* buffer) { return ::GetCurrentDirectoryW(size, buffer); }
  static DWORD LongName(const wchar_t* path, wchar_t* buffer, DWORD size) {
    return GetLongPathNameW(path, buffer, size);
  }
  static DWORD ShortName(const wchar_t* path, wchar_t* buffer, DWORD size) {
    return GetShortPathNameW(path, buffer, size);
  }
  static DWORD FullName(const wchar_t* path, wchar_t* buffer, DWORD size) {
    return GetFullPathNameW(path, size, buffer, nullptr);
  }
  static DWORD DosDevice(const wchar_t* drive, wchar_t* buffer, DWORD size) {
    return QueryDosDeviceW(drive, buffer, size);
  }
  static HANDLE FindFirst(const wchar_t* pattern, FindData* data) { return FindFirstFileW(pattern, data); }
  static BOOL FindNext(HANDLE search, FindData* data) { return FindNextFileW(search, data); }
  static int Compare(const wchar_t* left, const wchar_t* right) { return std::wcscmp(left, right); }
  static int CompareNoCase(const wchar_t* left, const wchar_t* right) { return _wcsicmp(left, right); }
};

template <class C>
bool IsSeparator(C c) {
  return c == '\\' || c == '/';
}

// A text of the program's own, all ASCII, in either character type.
template <class C>
std::basic_string<C> Literal(const char* text) {
  return std::basic_string<C>(text, text + std::strlen(text));
}

template <class C>
bool HasDrive(const std::basic_string<C>& text) {
  return text.size() >= 2 && text[1] == ':';
}

// Calls a function of the system with a buffer of MAX_PATH characters. False if it fails or needs more room.
template <class C, class Call>
bool Query(Call call, std::basic_string<C>* result) {
  C buffer[MAX_PATH];
  DWORD length = call(buffer, DWORD{MAX_PATH});
  if (length == 0 || length >= MAX_PATH) return false;
  result->assign(buffer, length);
  return true;
}

// The device behind a drive. The system answers with a list, of which the first entry is in force.
template <class C>
bool QueryDrive(const std::basic_string<C>& text, std::basic_string<C>* device) {
  std::basic_string<C> drive = text.substr(0, 2);
  auto call = [&](C* buffer, DWORD size) { return System<C>::DosDevice(drive.c_str(), buffer, size); };
  if (!Query<C>(call, device)) return false;
  *device = device->c_str();
  return true;
}

u64 ToNumber(const FILETIME& time) {
  return static_cast<u64>(time.dwHighDateTime) << 32 | time.dwLowDateTime;
}

// Takes the root off the front of a path, and gives the position after it: "\", "C:", "C:\" or "\\server\".
template <class C>
size_t SplitRoot(const std::basic_string<C>& text, std::basic_string<C>& root) {
  if (IsSeparator(text[0])) {
    root = Literal<C>("\\");
    if (text.size() == 1 || text[1] != text[0]) return 1;
    size_t end = 2;
    while (end < text.size() && !IsSeparator(text[end])) ++end;
    root = text.substr(0, end) + Literal<C>("\\");
    return std::min(end + 1, text.size());
  }
  if (!HasDrive(text)) return 0;
  root = text.substr(0, 2);
  if (text.size() == 2 || !IsSeparator(text[2])) return 2;
  root += '\\';
  return 3;
}

// The components of a path, the last one included.
template <class C>
std::vector<std::basic_string<C>> AllComponents(const BasicPath<C>& path, std::basic_string<C>& root) {
  std::vector<std::basic_string<C>> components;
  std::basic_string<C> name, extension;
  Split(path, root, components, name, extension);
  if (!name.empty() || !extension.empty()) components.push_back(name + extension);
  return components;
}

// Makes the first `count` directories, from the top down.
template <class C>
bool MakeDirectories(const std::basic_string<C>& root, const std::vector<std::basic_string<C>>& directories,
                     size_t count) {
  BasicPath<C> path(root);
  for (size_t i = 0; i < count; ++i) {
    path /= directories[i];
    if (!MakeDirectory(path)) return false;
  }
  return true;
}

}  // namespace

template <class C>
typename BasicPath<C>::Text BasicPath<C>::WithoutQuotes(const Text& text) {
  if (text.empty() || text[0] != '"') return text;
  return text.size() == 1 ? Text() : text.substr(1, text.size() - 2);
}

template <class C>
BasicPath<C>& BasicPath<C>::operator/=(const BasicPath& right) {
  // A copy, because the right side may be this very object.
  Text tail = right.text_;
  if (!text_.empty() && !IsSeparator(text_.back())) text_ += '\\';
  text_ += tail;
  return *this;
}

template <class C>
bool BasicPath<C>::IsSameAs(const BasicPath& other) const {
  if (IsEmpty() || other.IsEmpty()) return IsEmpty() && other.IsEmpty();
  BasicPath left = Canonicalise(*this);
  BasicPath right = Canonicalise(other);
  // The short names are compared only if the texts differ: asking for them reads the disk.
  return ComparePaths(left, right, true) == 0 || ComparePaths(GetShortName(left), GetShortName(right), true) == 0;
}

template <class C>
bool BasicPath<C>::IsAbsolute() const {
  if (text_.empty()) return false;
  return IsSeparator(text_[0]) || (text_.size() >= 3 && text_[1] == ':' && IsSeparator(text_[2]));
}

template <class C>
bool BasicPath<C>::Exists() const {
  return GetAttributes(*this) != kNoAttributes;
}

template <class C>
bool BasicPath<C>::IsDirectory() const {
  u32 attributes = GetAttributes(*this);
  return attributes != kNoAttributes && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

template <class C>
BasicPath<C> BasicPath<C>::GetDirectory() const {
  Text root, name, extension;
  std::vector<Text> directories;
  Split(*this, root, directories, name, extension);
  return Join(root, directories, Text(), Text());
}

template <class C>
typename BasicPath<C>::Text BasicPath<C>::GetLeaf() const {
  Text root, name, extension;
  std::vector<Text> directories;
  Split(*this, root, directories, name, extension);
  return name + extension;
}

template <class C>
typename BasicPath<C>::Text BasicPath<C>::GetBaseName() const {
  Text leaf = GetLeaf();
  return leaf.substr(0, leaf.rfind('.'));
}

template <class C>
BasicPath<C> BasicPath<C>::GetLongName() const {
  return kestrun::GetLongName(*this);
}

template <class C>
BasicPath<C> BasicPath<C>::WithoutRoot() const {
  Text root, name, extension;
  std::vector<Text> directories;
  Split(*this, root, directories, name, extension);
  return root.empty() ? *this : Join(Literal<C>("\\"), directories, name, extension);
}

template <class C>
typename BasicPath<C>::Text BasicPath<C>::GetQuoted(C separator) const {
  Text path(text_);
  std::replace_if(path.begin(), path.end(), IsSeparator<C>, separator);
  return Literal<C>("\"") + path + Literal<C>("\"");
}

template <class C>
bool BasicPath<C>::CreateDirectories() const {
  Text root;
  std::vector<Text> components = AllComponents(*this, root);
  return MakeDirectories(root, components, components.size());
}

template <class C>
bool BasicPath<C>::CreateParentDirectories() const {
  Text root;
  std::vector<Text> components = AllComponents(*this, root);
  return components.empty() || MakeDirectories(root, components, components.size() - 1);
}

template <class C>
void Split(const BasicPath<C>& path, std::basic_string<C>& root, std::vector<std::basic_string<C>>& directories,
           std::basic_string<C>& name, std::basic_string<C>& extension) {
  const std::basic_string<C>& text = path.ToString();
  root.clear();
  directories.clear();
  name.clear();
  extension.clear();
  if (text.empty()) return;
  size_t begin = SplitRoot(text, root);
  for (size_t i = begin; i < text.size(); ++i) {
    if (!IsSeparator(text[i])) continue;
    if (i > begin) directories.push_back(text.substr(begin, i - begin));
    begin = i + 1;
  }
  std::basic_string<C> leaf = text.substr(begin);
  size_t dot = std::min(leaf.rfind('.'), leaf.size());
  name = leaf.substr(0, dot);
  extension = leaf.substr(dot);
}

template <class C>
BasicPath<C> Join(const std::basic_string<C>& root, const std::vector<std::basic_string<C>>& directories,
                  const std::basic_string<C>& name, const std::basic_string<C>& extension) {
  std::basic_string<C> text(root);
  std::replace(text.begin(), text.end(), C{'/'}, C{'\\'});
  if (!text.empty() && !IsSeparator(text.back())) text += '\\';
  for (const auto& directory : directories) {
    text += directory;
    text += '\\';
  }
  text += name;
  if (!extension.empty() && extension[0] != '.') text += '.';
  text += extension;
  return BasicPath<C>(text);
}

template <class C>
BasicPath<C> Canonicalise(const BasicPath<C>& path) {
  std::basic_string<C> root, name, extension;
  std::vector<std::basic_string<C>> directories, kept;
  Split(path, root, directories, name, extension);
  if (root == Literal<C>("\\")) {
    BasicPath<C> current = GetCurrentDirectory<C>();
    if (HasDrive(current.ToString())) root = current.ToString().substr(0, 3);
  }
  for (const auto& directory : directories) {
    if (directory == Literal<C>(".")) continue;
    if (directory != Literal<C>("..")) {
      kept.push_back(directory);
      // ".." at the root stays at the root, as the system has it.
    } else if (!kept.empty()) {
      kept.pop_back();
    }
  }
  return Join(root, kept, name, extension);
}

template <class C>
u32 GetAttributes(const BasicPath<C>& path, FileInfo* info) {
  WIN32_FILE_ATTRIBUTE_DATA data;
  if (!System<C>::Attributes(path.c_str(), &data)) return kNoAttributes;
  if (info != nullptr) {
    info->creationTime = ToNumber(data.ftCreationTime);
    info->accessTime = ToNumber(data.ftLastAccessTime);
    info->writeTime = ToNumber(data.ftLastWriteTime);
    info->size = static_cast<u64>(data.nFileSizeHigh) << 32 | data.nFileSizeLow;
  }
  return data.dwFileAttributes;
}

template <class C>
BasicPath<C> GetCurrentDirectory() {
  std::basic_string<C> directory;
  auto call = [](C* buffer, DWORD size) { return System<C>::CurrentDirectory(size, buffer); };
  return Query<C>(call, &directory) ? BasicPath<C>(directory) : BasicPath<C>();
}

template <class C>
bool MakeDirectory(const BasicPath<C>& path) {
  if (path.Exists()) return true;
  return System<C>::Create(path.c_str()) || GetLastError() == ERROR_ALREADY_EXISTS;
}

template <class C>
bool ListDirectory(const BasicPath<C>& directory, const std::basic_string<C>& pattern,
                   std::vector<BasicPath<C>>& entries) {
  typename System<C>::FindData found;
  HANDLE search = System<C>::FindFirst((directory / pattern).c_str(), &found);
  if (search == INVALID_HANDLE_VALUE) return false;
  do {
    std::basic_string<C> name(found.cFileName);
    if (name != Literal<C>(".") && name != Literal<C>("..")) entries.push_back(directory / name);
  } while (System<C>::FindNext(search, &found));
  FindClose(search);
  return true;
}

template <class C>
int ComparePaths(const BasicPath<C>& left, const BasicPath<C>& right, bool ignoreCase) {
  return ignoreCase ? System<C>::CompareNoCase(left.c_str(), right.c_str())
                    : System<C>::Compare(left.c_str(), right.c_str());
}

template <class C>
BasicPath<C> GetShortName(const BasicPath<C>& path) {
  std::basic_string<C> name;
  auto call = [&](C* buffer, DWORD size) { return System<C>::ShortName(path.c_str(), buffer, size); };
  return Query<C>(call, &name) ? BasicPath<C>(name) : path;
}

template <class C>
BasicPath<C> GetLongName(const BasicPath<C>& path) {
  std::basic_string<C> name;
  auto call = [&](C* buffer, DWORD size) { return System<C>::LongName(path.c_str(), buffer, size); };
  return Query<C>(call, &name) ? BasicPath<C>(name) : path;
}

template <class C>
BasicPath<C> GetFullPath(const BasicPath<C>& path) {
  std::basic_string<C> name;
  auto call = [&](C* buffer, DWORD size) { return System<C>::FullName(path.c_str(), buffer, size); };
  return Query<C>(call, &name) ? BasicPath<C>(name) : path;
}

template <class C>
BasicPath<C> ResolveSubst(const BasicPath<C>& path) {
  const std::basic_string<C> prefix = Literal<C>("\\??\\");
  std::basic_string<C> device;
  if (!HasDrive(path.ToString()) || !QueryDrive(path.ToString(), &device)) return path;
  if (device.compare(0, prefix.size(), prefix) != 0) return path;
  // The separator at the front is left out, because joining adds one.
  return BasicPath<C>(device.substr(prefix.size())) / path.WithoutRoot().ToString().substr(1);
}

template <class C>
BasicPath<C> ToDevicePath(const BasicPath<C>& path) {
  std::basic_string<C> device;
  if (!HasDrive(path.ToString()) || !QueryDrive(path.ToString(), &device)) return path;
  return BasicPath<C>(device + path.ToString().substr(2));
}

template class BasicPath<char>;
template void Split(const BasicPath<char>&, std::basic_string<char>&, std::vector<std::basic_string<char>>&,
                    std::basic_string<char>&, std::basic_string<char>&);
template BasicPath<char> Join(const std::basic_string<char>&, const std::vector<std::basic_string<char>>&,
                              const std::basic_string<char>&, const std::basic_string<char>&);
template BasicPath<char> Canonicalise(const BasicPath<char>&);
template u32 GetAttributes(const BasicPath<char>&, FileInfo*);
template BasicPath<char> GetCurrentDirectory<char>();
template bool MakeDirectory(const BasicPath<char>&);
template bool ListDirectory(const BasicPath<char>&, const std::basic_string<char>&, std::vector<BasicPath<char>>&);
template int ComparePaths(const BasicPath<char>&, const BasicPath<char>&, bool);
template BasicPath<char> GetShortName(const BasicPath<char>&);
template BasicPath<char> GetLongName(const BasicPath<char>&);
template BasicPath<char> GetFullPath(const BasicPath<char>&);
template BasicPath<char> ResolveSubst(const BasicPath<char>&);
template BasicPath<char> ToDevicePath(const BasicPath<char>&);

template class BasicPath<wchar_t>;
template void Split(const BasicPath<wchar_t>&, std::basic_string<wchar_t>&, std::vector<std::basic_string<wchar_t>>&,
                    std::basic_string<wchar_t>&, std::basic_string<wchar_t>&);
template BasicPath<wchar_t> Join(const std::basic_string<wchar_t>&, const std::vector<std::basic_string<wchar_t>>&,
                                 const std::basic_string<wchar_t>&, const std::basic_string<wchar_t>&);
template BasicPath<wchar_t> Canonicalise(const BasicPath<wchar_t>&);
template u32 GetAttributes(const BasicPath<wchar_t>&, FileInfo*);
template BasicPath<wchar_t> GetCurrentDirectory<wchar_t>();
template bool MakeDirectory(const BasicPath<wchar_t>&);
template bool ListDirectory(const BasicPath<wchar_t>&, const std::basic_string<wchar_t>&,
                            std::vector<BasicPath<wchar_t>>&);
template int ComparePaths(const BasicPath<wchar_t>&, const BasicPath<wchar_t>&, bool);
template BasicPath<wchar_t> GetShortName(const BasicPath<wchar_t>&);
template BasicPath<wchar_t> GetLongName(const BasicPath<wchar_t>&);
template BasicPath<wchar_t> GetFullPath(const BasicPath<wchar_t>&);
template BasicPath<wchar_t> ResolveSubst(const BasicPath<wchar_t>&);
template BasicPath<wchar_t> ToDevicePath(const BasicPath<wchar_t>&);

}  // namespace kestrun
