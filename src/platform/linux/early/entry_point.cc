// Where the kernel enters the program. The stack holds what the kernel has put there: the number of words, the words,
// the environment and the auxiliary vector, each list with a zero behind it.
//
// The C library's own entry point finds the registers and the stack as if the kernel had entered there.
#include <elf.h>

#include "platform/early_start.h"

asm(R"(
.section .text.kestrun_early_entry, "ax", @progbits
.globl kestrun_early_entry
.type kestrun_early_entry, @function
kestrun_early_entry:
  .cfi_startproc
  .cfi_undefined rip
  xor %ebp, %ebp
  mov %rsp, %rbx
  mov %rdx, %r12
  mov %rsp, %rdi
  call kestrun_early_main
  mov %rbx, %rsp
  mov %r12, %rdx
  jmp _start
  .cfi_endproc
.size kestrun_early_entry, .-kestrun_early_entry
.text
)");

namespace kestrun::platform::early {

namespace {

// True if the kernel tells the user, and that the program has no more rights than its caller.
bool ReadAuxiliary(const Elf64_auxv_t* entry, std::uint32_t& user) {
  bool hasUser = false;
  bool isSecure = true;
  for (; entry->a_type != AT_NULL; ++entry) {
    if (entry->a_type == AT_EUID) {
      user = static_cast<std::uint32_t>(entry->a_un.a_val);
      hasUser = true;
    }
    if (entry->a_type == AT_SECURE) isSecure = entry->a_un.a_val != 0;
  }
  return hasUser && !isSecure;
}

}  // namespace

extern "C" [[gnu::used]] void kestrun_early_main(long* stack) {
  Start start;
  start.words = reinterpret_cast<char**>(stack + 1);
  start.environment = start.words + stack[0] + 1;
  char** end = start.environment;
  while (*end != nullptr) ++end;
  if (ReadAuxiliary(reinterpret_cast<const Elf64_auxv_t*>(end + 1), start.user)) Main(start);
}

}  // namespace kestrun::platform::early
