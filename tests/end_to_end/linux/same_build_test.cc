// Command lines of a shell, run as they are, behind a program that only becomes the next one, and behind kestrun.
#include <algorithm>

#include "../same_build_fixture.h"

namespace kestrun::test {
namespace {

// $K stands for nothing, for env, and for kestrun.
const char* const kShellRows[] = {
    "umask 077; $K sh -c 'umask; echo x >made; mkdir folder'",
    "umask 002; $K sh -c 'echo x >made; mkdir folder'",
    "ulimit -Sn 77; $K sh -c 'ulimit -Sn; ulimit -Hn; ulimit -c; ulimit -s'",
    "nice -n 5 $K nice",
    "mkdir real; ln -s real link; cd link; $K sh -c 'echo ${PWD##*/}; basename $(pwd -P)'",
    "echo 'int x;' | $K cat >x.c; cat x.c",
    "printf 'one\\ntwo\\n' | { $K sh -c 'read line; echo $line'; cat; }",
    "export LD_LIBRARY_PATH=a CPATH=b SOURCE_DATE_EPOCH=c; $K sh -c 'echo $LD_LIBRARY_PATH $CPATH $SOURCE_DATE_EPOCH'",
    "PATH=$PWD/bin:$PATH; mkdir bin; printf '#!/bin/sh\\necho found $0 $1\\n' >bin/only; chmod +x bin/only; $K only "
    "here"
    " | sed \"s,$PWD,,\"",
    "printf '#!/bin/sh\\necho here\\n' >only; chmod +x only; PATH=:$PATH; $K only",
    "mkdir a b; : >a/only; printf '#!/bin/sh\\necho of b\\n' >b/only; chmod +x b/only; PATH=$PWD/a:$PWD/b:$PATH; $K "
    "only",
    "printf '#!/bin/sh\\necho wrong\\n' >gcc-x; chmod +x gcc-x; $K gcc-x 2>/dev/null; echo $?",
    "printf 'echo \"$0\" \"$@\"\\n' >plain; chmod +x plain; $K ./plain a 'b c'",
    "mkdir 'q\"d'; printf 'echo \"$0\" \"$@\"\n' >'q\"d/p\" q'; chmod +x q*/p*; $K './q\"d/p\" q' 'a\" b'",
    ": >empty; chmod +x empty; $K ./empty; echo $?",
    "printf 'echo x\\n' >notexec; $K ./notexec 2>/dev/null; echo $?",
    "printf '#!/no/such/interpreter\\n' >script; chmod +x script; $K ./script 2>/dev/null; echo $?",
    "mkdir folder; $K ./folder 2>/dev/null; echo $?",
    "$K ./nothing 2>/dev/null; echo $?",
    "$K nothing-at-all 2>/dev/null; echo $?",
    "mkdir Tools; printf '#!/bin/sh\\necho upper\\n' >Tools/CC; printf '#!/bin/sh\\necho lower\\n' >Tools/cc;"
    " chmod +x Tools/*; $K $PWD/Tools/CC; $K Tools/cc",
    "$K sh -c 'kill -SEGV $$' 2>/dev/null; echo $?",
    "$K sh -c 'kill -KILL $$' 2>/dev/null; echo $?",
    "sh -c \"$K sh -c 'kill -TERM \\$\\$'; exit \\$?\"; echo $?",
    "trap '' TERM; $K sh -c 'kill -TERM $$; echo survived'",
    "{ $K yes; echo $? >code; } | head -n1; cat code",
    "{ trap '' PIPE; $K sh -c 'yes 2>/dev/null; echo $? >code'; } | head -n1; cat code",
    "$K seq 1 100000 >/dev/full; echo $?",
    "$K sh -c 'echo out; echo err >&2; echo out again' >both 2>&1; cat both",
    "$K seq 200000 | tail -n1",
    "$K sh -c 'echo x' >&- 2>/dev/null; echo $?",
    "$K cat <&- 2>/dev/null; echo $?",
    "$K sh -c 'echo x >&2' 2>&-; echo $?",
    "exec 7>seven; $K sh -c 'echo x >&7'; cat seven",
    "$K sh -c 'ls /proc/self/fd | wc -l'",
    "$K printf '%s\\n' -Iopenssl@3/include git@host @list '$$I:x' '%HOME%' '' 'a\"b' 'c\\' \"$(printf 'two\\nlines')\"",
    "printf 'a.o b.o' >list; $K sh -c 'cat ${1#@}' sh @list",
    "$K tty; echo $?",
    "mkdir gone; cd gone; rmdir ../gone; $K sh -c 'echo still here'",
    "printf 'all:\\n\\t+@$(K) $(MAKE) -s sub\\nsub:\\n\\t@echo sub\\n' >Makefile; make -s -j2",
    "$K sh -c 'sleep 0.01 & wait; echo waited'",
    "$K seq 200000 | $K tail -n1",
    "$K seq 200000 | $K cat | cat | $K cat | $K tail -n1",
    "$K env -i sh -c env | grep -v '^_=\\|^PWD=\\|^SHLVL='",
    "$K awk 'BEGIN { exit 300 }'; echo $?",
};

TEST_F(SameBuild, AShellsLineDoesTheSame) {
  StartTransparentMaster();
  for (const char* const row : kShellRows) {
    const auto run = [&](const std::string& before) {
      ChildOptions options;
      options.environment["K"] = before;
      options.input = "";
      return RunApart({"/bin/sh", "-c", row}, options);
    };
    const Outcome direct = run("");
    ExpectSame(direct, run("env"), std::string("env: ") + row);
    ExpectSame(direct, run(ProgramPath("kestrun")), row);
  }
}

// One slot for all: pipelines, and tools that wait for others in ways that only show in their being idle.
TEST_F(SameBuild, ToolsThatWaitForOneAnotherAreLetRun) {
  StartTransparentMaster("MaxConcurrentJobs=int:1\n");
  for (const char* const row :
       {"$K seq 200000 | $K tail -n1", "$K yes | $K cat | $K head -n2", "$K seq 200000 | cat | $K tail -n1",
        "mkfifo f; $K sh -c 'cat f' & $K sh -c 'echo through >f'; wait", "$K sleep 300 & $K echo beside; kill $!"}) {
    ChildOptions options;
    options.environment["K"] = "";
    const Outcome direct = RunApart({"/bin/sh", "-c", row}, options);
    options.environment["K"] = ProgramPath("kestrun");
    const Outcome through = RunApart({"/bin/sh", "-c", row}, options);
    EXPECT_EQ(direct.result.output, through.result.output) << row;
    EXPECT_EQ(direct.result.exitCode, through.result.exitCode) << row;
  }
}

// Each make is a job of the one above it, and every line is a job of its own.
TEST_F(SameBuild, MakeInsideMakeEndsOnTwoSlots) {
  StartTransparentMaster();
  folder_.Write("Makefile",
                "all:\n\t+@$(K) $(MAKE) -s -f Makefile middle\n"
                "middle: m1 m2 m3\n"
                "m1 m2 m3:\n\t+@$(K) $(MAKE) -s -f Makefile a$@ b$@ c$@ d$@\n"
                "%:\n\t@$(K) sh -c 'echo $@'\n");
  ChildOptions options;
  options.workingDirectory = folder_.Path().string();
  options.environment["K"] = ProgramPath("kestrun");
  const RunResult result = test::Run({"make", "-s", "-j8"}, WithEnvironment(options));
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.errors, "");
  EXPECT_EQ(std::count(result.output.begin(), result.output.end(), '\n'), 13)
      << "twelve of them, and middle: " << result.output;
}

}  // namespace
}  // namespace kestrun::test
