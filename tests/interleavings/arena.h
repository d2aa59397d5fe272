// The memory of the fibers: one piece that is forgotten after each run, since a killed process frees nothing.
#ifndef KESTRUN_TESTS_INTERLEAVINGS_ARENA_H_
#define KESTRUN_TESTS_INTERLEAVINGS_ARENA_H_

namespace kestrun::interleavings::arena {

// Whether operator new takes from the arena, rather than from the process's own memory.
void Use(bool isUsed);
bool IsUsed();
void Reset();

// For what a fiber does on behalf of the world.
class HostScope {
 public:
  HostScope() : wasUsed_(IsUsed()) { Use(false); }
  ~HostScope() { Use(wasUsed_); }
  HostScope(const HostScope&) = delete;
  HostScope& operator=(const HostScope&) = delete;

 private:
  const bool wasUsed_;
};

}  // namespace kestrun::interleavings::arena

#endif  // KESTRUN_TESTS_INTERLEAVINGS_ARENA_H_
