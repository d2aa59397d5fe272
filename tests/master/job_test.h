// What the tests of scheduler and local job queue share: jobs that run the test tool, and their messages.
#ifndef KESTRUN_TESTS_MASTER_JOB_TEST_H_
#define KESTRUN_TESTS_MASTER_JOB_TEST_H_

#include <gtest/gtest.h>

#include <string>

#include "master/build_job.h"
#include "messaging/message_dispatcher.h"
#include "recording_channel.h"
#include "runtime/files/ini_file.h"
#include "runtime/threads/blocking_queue.h"
#include "support/child.h"
#include "support/names.h"

namespace kestrun::test {

// The test takes the place of the master's service: messages that are posted to it wait in a queue.
class JobTest : public testing::Test {
 protected:
  JobTest() { dispatcher_.AddClient(kMasterService, MakeDelegate(&JobTest::OnMessage, this), 1); }

  void OnMessage(rc_ptr<Message> message) { messages_.Push(message); }
  rc_ptr<Message> NextMessage() {
    rc_ptr<Message> message;
    messages_.Pop(message, kNoLimit);
    return message;
  }

  // A job that runs the test tool with these words.
  rc_ptr<BuildJob> Job(u32 id, const std::string& project, const std::string& words = "exit 0") {
    rc_ptr<BuildJob> job = new BuildJob(id);
    job->projectName = project;
    job->commandLine = "\"" + ProgramPath("test_tool") + "\" " + words;
    job->workingDirectory = folder_.Path().string();
    job->clientAddress = stub_->GetAddress();
    return job;
  }

  TempFolder folder_;
  IniFile settings_;
  BlockingQueue<rc_ptr<Message>> messages_;
  MessageDispatcher dispatcher_{"", 0, ""};
  const rc_ptr<RecordingChannel> stub_ = RecordingChannel::Add(dispatcher_, UniqueName());
};

}  // namespace kestrun::test

#endif  // KESTRUN_TESTS_MASTER_JOB_TEST_H_
