#include "support/child.h"

#include <gtest/gtest.h>

#include "support/child_state.h"

namespace kestrun::test {

Child::Child(std::unique_ptr<State> state) : state_(std::move(state)) {}
Child::Child(Child&&) noexcept = default;
// The two objects exchange their children, so the old child of this one ends with the other object.
Child& Child::operator=(Child&& other) noexcept {
  state_.swap(other.state_);
  return *this;
}

Child Child::Start(const Words& commandLine, const ChildOptions& options) {
  Child child(State::Start(commandLine, options));
  if (options.input) {
    child.state_->WriteInput(*options.input);
    child.CloseInput();
  }
  return child;
}

Child::~Child() {
  if (!state_) return;
  Kill();
  CloseInput();
  // A descendant may hold an output open for longer than the child lived; the reader then outlives this object.
  for (std::thread& thread : state_->threads) thread.detach();
}

unsigned long Child::Pid() const {
  return state_->Pid();
}
std::string Child::ReadLine() {
  return state_->output->ReadLine();
}
std::string Child::Output() const {
  return state_->output->All();
}
std::string Child::Errors() const {
  return state_->errors->All();
}
void Child::Tell(const std::string& line) {
  EXPECT_TRUE(state_->WriteInput(line + "\n"));
}
void Child::CloseInput() {
  state_->CloseInput();
}
void Child::Interrupt() {
  state_->Interrupt();
}
bool Child::EndsWithin(unsigned limitMs) {
  return state_->EndsWithin(limitMs);
}

void Child::Kill() {
  if (EndsWithin(0)) return;
  state_->Kill();
  EndsWithin(60000);
}

int Child::Wait(unsigned limitMs) {
  if (!EndsWithin(limitMs)) {
    ADD_FAILURE() << "the child did not end within " << limitMs << " ms; its errors: " << Errors();
    Kill();
  }
  for (std::thread& thread : state_->threads) thread.join();
  state_->threads.clear();
  return state_->ExitCode();
}

}  // namespace kestrun::test
