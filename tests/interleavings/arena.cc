#include "arena.h"

#include <cstddef>
#include <cstdlib>
#include <new>

namespace kestrun::interleavings::arena {

namespace {

constexpr std::size_t kSize = std::size_t{16} << 20;
alignas(16) unsigned char memory[kSize];
std::size_t used = 0;
bool isUsed = false;

}  // namespace

void Use(bool isNowUsed) {
  isUsed = isNowUsed;
}

bool IsUsed() {
  return isUsed;
}

void Reset() {
  used = 0;
}

static void* Take(std::size_t size) {
  if (!isUsed) return std::malloc(size != 0 ? size : 1);
  const std::size_t length = (size + 15) & ~std::size_t{15};
  if (used + length > kSize) return nullptr;
  void* const taken = memory + used;
  used += length;
  return taken;
}

static void Give(void* taken) {
  auto* const address = static_cast<unsigned char*>(taken);
  if (address < memory || address >= memory + kSize) std::free(taken);
}

}  // namespace kestrun::interleavings::arena

void* operator new(std::size_t size) {
  void* const taken = kestrun::interleavings::arena::Take(size);
  if (taken == nullptr) std::abort();
  return taken;
}

void operator delete(void* taken) noexcept {
  kestrun::interleavings::arena::Give(taken);
}

void operator delete(void* taken, std::size_t) noexcept {
  kestrun::interleavings::arena::Give(taken);
}
