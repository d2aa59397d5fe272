// The objects of the world, and what a step does to them.
#include <algorithm>

#include "world.h"

namespace kestrun::interleavings {

std::shared_ptr<Object> World::Find(const std::string& name) const {
  const auto found = named_.find(name);
  return found != named_.end() ? found->second : nullptr;
}

Object* World::Lookup(const Thread& thread, HANDLE handle) const {
  const auto& handles = processes_[thread.process]->handles;
  const auto found = handles.find(reinterpret_cast<std::intptr_t>(handle));
  return found != handles.end() ? found->second.get() : nullptr;
}

std::intptr_t World::OpenHandle(int process, const std::shared_ptr<Object>& object) {
  Process& owner = *processes_[process];
  owner.lastHandle += 4;
  owner.handles[owner.lastHandle] = object;
  ++object->handles;
  object->openers.insert(process);
  return owner.lastHandle;
}

void World::DropHandle(int process, std::intptr_t handle) {
  auto& handles = processes_[process]->handles;
  const auto found = handles.find(handle);
  if (found == handles.end()) return;
  const std::shared_ptr<Object> object = found->second;
  handles.erase(found);
  if (--object->handles == 0 && !object->name.empty()) named_.erase(object->name);
}

std::intptr_t World::OpenOrCreate(Thread& thread) {
  const Step& step = thread.step;
  const std::string name = step.name != nullptr ? step.name : "";
  std::shared_ptr<Object> object = name.empty() ? nullptr : Find(name);
  thread.lastError = object != nullptr && step.kind == Step::Kind::kCreate ? ERROR_ALREADY_EXISTS : ERROR_SUCCESS;
  if (object == nullptr && step.kind == Step::Kind::kOpen) {
    thread.lastError = ERROR_FILE_NOT_FOUND;
    return 0;
  }
  if (object != nullptr && object->kind != step.object) {
    thread.lastError = ERROR_INVALID_HANDLE;
    return 0;
  }
  if (object == nullptr) {
    object = std::make_shared<Object>();
    object->kind = step.object;
    object->name = name;
    object->nameHash = Mix(std::hash<std::string>()(name));
    object->isManual = step.isManual;
    object->count = step.initial;
    object->maximum = step.maximum;
    if (step.object == ObjectKind::kRegion) {
      object->memory = MemoryFor(name);
      regions_.push_back(object);
    }
    if (!name.empty()) named_[name] = object;
  }
  return OpenHandle(thread.process, object);
}

bool World::IsSignalled(int index, const Object& object) const {
  if (object.kind == ObjectKind::kMutex) return object.owner < 0 || object.owner == index;
  return object.count > 0;
}

std::intptr_t World::Wait(int index) {
  Thread& thread = *threads_[index];
  for (u32 i = 0; i < thread.step.count; ++i) {
    Object* const object = Lookup(thread, thread.step.handles[i]);
    if (object == nullptr) {
      Fail("a wait on a handle that is closed");
      thread.lastError = ERROR_INVALID_HANDLE;
      return static_cast<std::intptr_t>(WAIT_FAILED);
    }
    if (!IsSignalled(index, *object)) continue;
    const bool wasAbandoned = std::exchange(object->isAbandoned, false);
    if (object->kind == ObjectKind::kMutex) {
      object->owner = index;
      ++object->count;
    } else if (!object->isManual) {
      --object->count;
    }
    return static_cast<std::intptr_t>((wasAbandoned ? WAIT_ABANDONED_0 : WAIT_OBJECT_0) + i);
  }
  return WAIT_TIMEOUT;
}

std::intptr_t World::ReleaseMutexOf(int index) {
  Object* const mutex = Lookup(*threads_[index], threads_[index]->step.handles[0]);
  if (mutex == nullptr || mutex->owner != index) return FALSE;
  if (--mutex->count == 0) mutex->owner = -1;
  return TRUE;
}

std::intptr_t World::AddSemaphore(Thread& thread) {
  Object* const semaphore = Lookup(thread, thread.step.handles[0]);
  if (semaphore == nullptr || semaphore->count >= semaphore->maximum) return FALSE;
  ++semaphore->count;
  return TRUE;
}

std::intptr_t World::StartThread(Thread& thread) {
  const LPTHREAD_START_ROUTINE start = thread.step.start;
  void* const argument = thread.step.argument;
  const int index = AddThread(thread.process, [start, argument] { start(argument); });
  threads_[index]->isSuspended = true;
  return OpenHandle(threads_[index]->process, threads_[index]->object);
}

bool World::ResumeThreadOf(HANDLE handle) {
  Object* const object = Lookup(Current(), handle);
  for (const auto& thread : threads_) {
    if (thread->object.get() == object) thread->isSuspended = false;
  }
  return object != nullptr;
}

void World::EndThread(int index) {
  Thread& thread = *threads_[index];
  thread.isEnded = true;
  thread.object->count = 1;
  const bool isMain = std::none_of(threads_.begin(), threads_.begin() + index,
                                   [&](const auto& other) { return other->process == thread.process; });
  if (!isMain) return;
  DropMutexes(thread.process);
  DropHandles(thread.process);
  processes_[thread.process]->state = ProcessState::kGone;
}

std::intptr_t World::Perform(int index) {
  Thread& thread = *threads_[index];
  const Step& step = thread.step;
  Object* const object = Lookup(thread, step.handles[0]);
  switch (step.kind) {
    case Step::Kind::kOpen:
    case Step::Kind::kCreate:
      return OpenOrCreate(thread);
    case Step::Kind::kClose:
      DropHandle(thread.process, reinterpret_cast<std::intptr_t>(step.handles[0]));
      return TRUE;
    case Step::Kind::kSet:
    case Step::Kind::kReset:
      if (object != nullptr) object->count = step.kind == Step::Kind::kSet;
      return object != nullptr;
    case Step::Kind::kReleaseMutex:
      return ReleaseMutexOf(index);
    case Step::Kind::kReleaseSemaphore:
      return AddSemaphore(thread);
    case Step::Kind::kWait:
      return Wait(index);
    case Step::Kind::kCountHandles:
      return object != nullptr ? object->handles : 0;
    case Step::Kind::kStartThread:
      return StartThread(thread);
    default:
      return 0;
  }
}

}  // namespace kestrun::interleavings
