#include "platform/linux/crash/core_notes.h"

#include <elf.h>
#include <sys/procfs.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

namespace kestrun::platform {

namespace {

constexpr std::size_t kMostNotes = 24 << 20;

// Appends notes to a block of scratch memory. If one does not fit, the whole has failed.
class NoteWriter {
 public:
  explicit NoteWriter(Scratch& scratch) : data_(scratch.TakeArray<char>(kMostNotes)) {}

  void Add(std::uint32_t type, const void* content, std::size_t size) {
    Begin(type);
    Append(content, size);
    End();
  }

  // A note whose content comes in pieces.
  void Begin(std::uint32_t type) {
    noteAt_ = size_;
    const Elf64_Nhdr header{sizeof kOwner, 0, type};
    Append(&header, sizeof header);
    Append(kOwner, sizeof kOwner);
    Pad();
    contentAt_ = size_;
  }
  void Append(const void* content, std::size_t size) {
    if (data_ == nullptr || kMostNotes - size_ < size) {
      failed_ = true;
      return;
    }
    std::memcpy(data_ + size_, content, size);
    size_ += size;
  }
  void End() {
    if (failed_) return;
    const auto length = static_cast<Elf64_Word>(size_ - contentAt_);
    std::memcpy(data_ + noteAt_ + offsetof(Elf64_Nhdr, n_descsz), &length, sizeof length);
    Pad();
  }

  Bytes Get() const { return failed_ ? Bytes{} : Bytes{data_, size_}; }

 private:
  static constexpr char kOwner[] = "CORE";

  void Pad() {
    constexpr char kZeros[4] = {};
    Append(kZeros, (4 - size_ % 4) % 4);
  }

  char* data_;
  std::size_t size_ = 0;
  std::size_t noteAt_ = 0;
  std::size_t contentAt_ = 0;
  bool failed_ = false;
};

#if defined(__x86_64__)

void CopyRegisters(const CoreThread& thread, elf_gregset_t& out) {
  const auto& in = thread.context->uc_mcontext.gregs;
  user_regs_struct registers{};
  const auto get = [&in](int index) { return static_cast<unsigned long long>(in[index]); };
  registers.r15 = get(REG_R15);
  registers.r14 = get(REG_R14);
  registers.r13 = get(REG_R13);
  registers.r12 = get(REG_R12);
  registers.rbp = get(REG_RBP);
  registers.rbx = get(REG_RBX);
  registers.r11 = get(REG_R11);
  registers.r10 = get(REG_R10);
  registers.r9 = get(REG_R9);
  registers.r8 = get(REG_R8);
  registers.rax = get(REG_RAX);
  registers.rcx = get(REG_RCX);
  registers.rdx = get(REG_RDX);
  registers.rsi = get(REG_RSI);
  registers.rdi = get(REG_RDI);
  // -1: the thread was not in a system call, so debuggers do not try to restart one.
  registers.orig_rax = ~0ull;
  registers.rip = get(REG_RIP);
  registers.eflags = get(REG_EFL);
  registers.rsp = get(REG_RSP);
  // The context packs cs, gs, fs and ss into one word, 16 bits each.
  registers.cs = get(REG_CSGSFS) & 0xFFFF;
  registers.gs = (get(REG_CSGSFS) >> 16) & 0xFFFF;
  registers.fs = (get(REG_CSGSFS) >> 32) & 0xFFFF;
  registers.ss = (get(REG_CSGSFS) >> 48) & 0xFFFF;
  registers.fs_base = thread.threadPointer;
  static_assert(sizeof registers == sizeof out);
  std::memcpy(&out, &registers, sizeof out);
}

void AddFloatingPoint(const CoreThread& thread, NoteWriter& notes) {
  const auto* const registers = thread.context->uc_mcontext.fpregs;
  static_assert(sizeof(user_fpregs_struct) == 512 && sizeof *registers == 512);
  if (registers != nullptr) notes.Add(NT_FPREGSET, registers, sizeof *registers);
}

#elif defined(__aarch64__)

void CopyRegisters(const CoreThread& thread, elf_gregset_t& out) {
  const auto& in = thread.context->uc_mcontext;
  user_regs_struct registers{};
  for (int i = 0; i < 31; ++i) registers.regs[i] = in.regs[i];
  registers.sp = in.sp;
  registers.pc = in.pc;
  registers.pstate = in.pstate;
  static_assert(sizeof registers == sizeof out);
  std::memcpy(&out, &registers, sizeof out);
}

void AddFloatingPoint(const CoreThread& thread, NoteWriter& notes) {
  notes.Add(NT_ARM_TLS, &thread.threadPointer, sizeof thread.threadPointer);
}

#endif

void AddThread(const CoreThread& thread, NoteWriter& notes) {
  elf_prstatus status{};
  status.pr_info.si_signo = thread.signal;
  status.pr_cursig = static_cast<short>(thread.signal);
  status.pr_pid = thread.id;
  status.pr_ppid = getppid();
  CopyRegisters(thread, status.pr_reg);
  notes.Add(NT_PRSTATUS, &status, sizeof status);
  AddFloatingPoint(thread, notes);
}

void AddProcess(Scratch& scratch, NoteWriter& notes) {
  elf_prpsinfo info{};
  info.pr_sname = 'R';
  info.pr_pid = getpid();
  info.pr_ppid = getppid();
  const Bytes name = ReadProcFile("/proc/self/comm", sizeof info.pr_fname - 1, scratch);
  std::memcpy(info.pr_fname, name.data, name.size - (name.size > 0 && name.data[name.size - 1] == '\n' ? 1 : 0));
  const Bytes arguments = ReadProcFile("/proc/self/cmdline", sizeof info.pr_psargs - 1, scratch);
  std::replace_copy(arguments.data, arguments.data + arguments.size, info.pr_psargs, '\0', ' ');
  notes.Add(NT_PRPSINFO, &info, sizeof info);
}

// The table of mapped files: a count and the page size, then start, end and offset in pages of each, then the names.
void AddFiles(const MemoryMap& map, NoteWriter& notes) {
  const auto pageSize = static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
  std::uint64_t count = 0;
  for (std::size_t i = 0; i < map.count; ++i) count += map.ranges[i].HasFile() ? 1 : 0;
  notes.Begin(NT_FILE);
  notes.Append(&count, sizeof count);
  notes.Append(&pageSize, sizeof pageSize);
  for (std::size_t i = 0; i < map.count; ++i) {
    const MappedRange& range = map.ranges[i];
    const std::uint64_t entry[] = {range.start, range.end, range.offset / pageSize};
    if (range.HasFile()) notes.Append(entry, sizeof entry);
  }
  for (std::size_t i = 0; i < map.count; ++i) {
    if (map.ranges[i].HasFile()) notes.Append(map.ranges[i].name, std::strlen(map.ranges[i].name) + 1);
  }
  notes.End();
}

}  // namespace

std::uint64_t StackPointer(const ucontext_t& context) {
#if defined(__x86_64__)
  return static_cast<std::uint64_t>(context.uc_mcontext.gregs[REG_RSP]);
#elif defined(__aarch64__)
  return context.uc_mcontext.sp;
#endif
}

Bytes MakeCoreNotes(const CoreThread* threads, std::size_t threadCount, const MemoryMap& map, Scratch& scratch) {
  NoteWriter notes(scratch);
  for (std::size_t i = 0; i < threadCount; ++i) {
    AddThread(threads[i], notes);
    if (i > 0) continue;
    // The notes about the process follow those of its first thread: debuggers take the first thread as the one that the
    // signal hit.
    AddProcess(scratch, notes);
    const Bytes auxiliary = ReadProcFile("/proc/self/auxv", 4096, scratch);
    notes.Add(NT_AUXV, auxiliary.data, auxiliary.size);
    AddFiles(map, notes);
  }
  return notes.Get();
}

}  // namespace kestrun::platform
