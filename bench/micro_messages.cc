// Building, serialising and parsing messages: what a stub and the master do once a request.
#include <benchmark/benchmark.h>

#include <string>

#include "messaging/message.h"
#include "protocol/protocol.h"
#include "runtime/base/rc_ptr.h"
#include "runtime/files/memory_stream.h"

namespace kestrun {
namespace {

// A request as a build sends it: a short command line and an environment of `variables` entries.
rc_ptr<Message> BuildRequest(int variables) {
  rc_ptr<Message> request(new Message(MSG_BUILD_REQUEST, kStubService, kMasterService));
  request->AddString(SEG_TOOL, "/usr/bin/gcc")
      .AddString(SEG_WORKING_DIR, "/home/somebody/project/build")
      .AddString(SEG_ARGUMENTS, "-O2 -g -Wall -Iinclude -c source/file.c -o objects/file.o")
      .AddString(SEG_PROJECT, "default")
      .AddU32(SEG_FLAGS, 0)
      .AddU32(SEG_JOB_TIMEOUT, 0)
      .AddString(SEG_JOB_NAME, "");
  for (int i = 0; i < variables; ++i) {
    rc_ptr<Message::Segment> variable(new Message::Segment(SEG_ENV_VAR));
    variable->AddNested(Message::Segment::FromString(SEG_ENV_NAME, "VARIABLE_" + std::to_string(i)).Get());
    variable->AddNested(Message::Segment::FromString(SEG_ENV_VALUE, "/usr/local/lib/some/place").Get());
    request->AddSegment(variable.Get());
  }
  return request;
}

rc_ptr<MemoryStream> Join(const Message::Streams& streams) {
  rc_ptr<MemoryStream> joined(new MemoryStream);
  for (const rc_ptr<Stream>& stream : streams) {
    stream->Seek(0);
    joined->ReadFrom(*stream);
  }
  joined->Seek(0);
  return joined;
}

void BM_BuildRequest(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(BuildRequest(static_cast<int>(state.range(0))));
}
BENCHMARK(BM_BuildRequest)->ArgName("variables")->Arg(0)->Arg(30)->Arg(300);

void BM_SerializeRequest(benchmark::State& state) {
  rc_ptr<Message> request = BuildRequest(static_cast<int>(state.range(0)));
  u32 size = 0;
  for (auto _ : state) {
    Message::Streams out;
    size = request->Serialize(out);
  }
  state.SetBytesProcessed(state.iterations() * size);
}
BENCHMARK(BM_SerializeRequest)->ArgName("variables")->Arg(0)->Arg(30)->Arg(300);

void BM_ParseRequest(benchmark::State& state) {
  Message::Streams out;
  u32 size = BuildRequest(static_cast<int>(state.range(0)))->Serialize(out);
  rc_ptr<MemoryStream> bytes = Join(out);
  Address address;
  for (auto _ : state) {
    bytes->Seek(0);
    rc_ptr<Message> parsed(new Message(address, size, *bytes));
    benchmark::DoNotOptimize(parsed->GetSegmentCount());
  }
  state.SetBytesProcessed(state.iterations() * size);
}
BENCHMARK(BM_ParseRequest)->ArgName("variables")->Arg(0)->Arg(30)->Arg(300);

// A result with a tool's output: past the limit for shared data nothing is copied.
void BM_SerializeOutput(benchmark::State& state) {
  rc_ptr<Message> result(new Message(MSG_BUILD_RESULT, kMasterService, kStubService));
  result->AddString(SEG_STDOUT, std::string(static_cast<size_t>(state.range(0)), 'x')).AddI32(SEG_EXIT_CODE, 0);
  for (auto _ : state) {
    Message::Streams out;
    benchmark::DoNotOptimize(result->Serialize(out));
  }
}
BENCHMARK(BM_SerializeOutput)->ArgName("bytes")->Arg(1 << 10)->Arg(1 << 20);

}  // namespace
}  // namespace kestrun
