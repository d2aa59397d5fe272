#include "platform/child_io.h"

#include <algorithm>
#include <vector>

namespace kestrun::platform {

struct OnlyStandardHandles::State {
  STARTUPINFOEXA startupInfo{};
  std::vector<HANDLE> handles;
  std::vector<unsigned char> attributes;  // the system's list, opaque
  bool restricted = false;

  LPPROC_THREAD_ATTRIBUTE_LIST AttributeList() {
    return reinterpret_cast<LPPROC_THREAD_ATTRIBUTE_LIST>(attributes.data());
  }

  // The system refuses a list that holds a handle twice or one that is not inheritable.
  void Add(HANDLE handle) {
    DWORD flags = 0;
    if (handle == nullptr || !GetHandleInformation(handle, &flags) || (flags & HANDLE_FLAG_INHERIT) == 0) return;
    if (std::find(handles.begin(), handles.end(), handle) == handles.end()) handles.push_back(handle);
  }

  bool Restrict() {
    if (handles.empty()) return false;
    SIZE_T size = 0;
    InitializeProcThreadAttributeList(nullptr, 1, 0, &size);
    attributes.resize(size);
    if (!InitializeProcThreadAttributeList(AttributeList(), 1, 0, &size)) return false;
    if (UpdateProcThreadAttribute(AttributeList(), 0, PROC_THREAD_ATTRIBUTE_HANDLE_LIST, handles.data(),
                                  handles.size() * sizeof(HANDLE), nullptr, nullptr)) {
      return true;
    }
    DeleteProcThreadAttributeList(AttributeList());
    return false;
  }
};

OnlyStandardHandles::OnlyStandardHandles(const STARTUPINFOA& startupInfo) : state_(std::make_unique<State>()) {
  state_->startupInfo.StartupInfo = startupInfo;
  state_->Add(startupInfo.hStdInput);
  state_->Add(startupInfo.hStdOutput);
  state_->Add(startupInfo.hStdError);
  state_->restricted = state_->Restrict();
  if (!state_->restricted) return;
  state_->startupInfo.StartupInfo.cb = sizeof(STARTUPINFOEXA);
  state_->startupInfo.lpAttributeList = state_->AttributeList();
}

OnlyStandardHandles::~OnlyStandardHandles() {
  if (state_->restricted) DeleteProcThreadAttributeList(state_->AttributeList());
}

STARTUPINFOA* OnlyStandardHandles::GetStartupInfo() {
  return &state_->startupInfo.StartupInfo;
}

DWORD OnlyStandardHandles::GetCreationFlags() const {
  return state_->restricted ? static_cast<DWORD>(EXTENDED_STARTUPINFO_PRESENT) : 0;
}

void InterruptRead(HANDLE thread) {
  CancelSynchronousIo(thread);
}

// An anonymous pipe can't be waited for.
DWORD CollectOutput(HANDLE /*process*/, const ChildOutput* /*outputs*/, DWORD /*count*/, DWORD /*timeoutMs*/) {
  SetLastError(ERROR_NOT_SUPPORTED);
  return WAIT_FAILED;
}

}  // namespace kestrun::platform
