#include "platform/child_io.h"

#include <algorithm>
#include <vector>

namespace kestrun::platform {

const DWORD kInheritDescriptors = 0;

namespace {

// PROC_THREAD_ATTRIBUTE_JOB_LIST, which older headers do not declare: known to Windows 10 and later.
constexpr DWORD_PTR kJobListAttribute = 0x2000D;
constexpr DWORD kMostAttributes = 2;

}  // namespace

struct ChildStartup::State {
  STARTUPINFOEXA startupInfo{};
  std::vector<HANDLE> handles;
  HANDLE job = nullptr;
  std::vector<unsigned char> attributes;  // the system's list, opaque; empty for none
  bool putsInJob = false;

  LPPROC_THREAD_ATTRIBUTE_LIST AttributeList() {
    return reinterpret_cast<LPPROC_THREAD_ATTRIBUTE_LIST>(attributes.data());
  }

  // The system refuses a list that holds a handle twice or one that is not inheritable.
  void Add(HANDLE handle) {
    DWORD flags = 0;
    if (handle == nullptr || !GetHandleInformation(handle, &flags) || (flags & HANDLE_FLAG_INHERIT) == 0) return;
    if (std::find(handles.begin(), handles.end(), handle) == handles.end()) handles.push_back(handle);
  }

  void MakeAttributeList() {
    // The first call only tells the size, and fails.
    SIZE_T size = 0;
    InitializeProcThreadAttributeList(nullptr, kMostAttributes, 0, &size);
    attributes.resize(size);
    if (!InitializeProcThreadAttributeList(AttributeList(), kMostAttributes, 0, &size)) attributes.clear();
  }

  bool Set(DWORD_PTR attribute, void* value, std::size_t size) {
    return !attributes.empty() &&
           UpdateProcThreadAttribute(AttributeList(), 0, attribute, value, size, nullptr, nullptr) != FALSE;
  }
};

ChildStartup::ChildStartup(const STARTUPINFOA& startupInfo, HANDLE job) : state_(std::make_unique<State>()) {
  State& state = *state_;
  state.startupInfo.StartupInfo = startupInfo;
  state.job = job;
  state.Add(startupInfo.hStdInput);
  state.Add(startupInfo.hStdOutput);
  state.Add(startupInfo.hStdError);
  state.MakeAttributeList();
  if (!state.handles.empty()) {
    state.Set(PROC_THREAD_ATTRIBUTE_HANDLE_LIST, state.handles.data(), state.handles.size() * sizeof(HANDLE));
  }
  state.putsInJob = job != nullptr && state.Set(kJobListAttribute, &state.job, sizeof state.job);
  if (state.attributes.empty()) return;
  state.startupInfo.StartupInfo.cb = sizeof(STARTUPINFOEXA);
  state.startupInfo.lpAttributeList = state.AttributeList();
}

ChildStartup::~ChildStartup() {
  if (!state_->attributes.empty()) DeleteProcThreadAttributeList(state_->AttributeList());
}

STARTUPINFOA* ChildStartup::GetStartupInfo() {
  return &state_->startupInfo.StartupInfo;
}

DWORD ChildStartup::GetCreationFlags() const {
  return state_->attributes.empty() ? 0 : static_cast<DWORD>(EXTENDED_STARTUPINFO_PRESENT);
}

bool ChildStartup::PutsInJob() const {
  return state_->putsInJob;
}

void InterruptRead(HANDLE thread) {
  CancelSynchronousIo(thread);
}

// Windows can't wait for an anonymous pipe, so the caller has a thread for each.
DWORD CollectOutput(HANDLE /*process*/, const ChildOutput* /*outputs*/, DWORD /*count*/, DWORD /*timeoutMs*/) {
  SetLastError(ERROR_NOT_SUPPORTED);
  return WAIT_FAILED;
}

}  // namespace kestrun::platform
