// SPDX-License-Identifier: Apache-2.0
// The trace of the IPC link: what crossed it shows on both sides, linked; a trace stays within its
// limit, loads however its process ended, and a directory it cannot use is said once and stops
// nothing.
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <sstream>

#include "ClientTrace.h"
#include "PeerHarness.h"
#include "PrivateDirectory.h"
#include "ProcessState.h"
#include "SocketClient.h"
#include "TraceFile.h"
#include "TraceMerge.h"

namespace vrocam {
namespace test {
namespace {

using namespace NSCam::ipc::wrapper;
using std::string;

string read(const string& path) {
  std::stringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

// Whether the merged trace holds an event named name of the process pid.
bool holds(const string& merged, const string& name, pid_t pid) {
  const string mark = "\"name\":\"" + name + "\",\"cat\":\"ipc\",\"pid\":" + std::to_string(pid);
  return merged.find(mark) != string::npos;
}

// A refusal, a fault, a timeout with its late answer and undo, and a client that died show as
// named events on the tracks of the side that saw them, and every call is linked to its handling.
TEST(TraceTest, WhatCrossedTheLinkShowsOnBothSides) {
  const peer::PrivateDirectory home("/tmp/vrocam-test-");
  TestPeer peer;
  peer.options().traceDir = home.path();
  ASSERT_EQ(peer.start(), 0) << peer.log();
  std::unique_ptr<trace::TraceFile> mine =
      trace::TraceFile::open(home.path(), "client", "trace_test", {}, nullptr);
  ASSERT_TRUE(mine);
  setClientTrace(mine.get());
  const LeakGuard leaks;
  {
    SocketClient client(peer.socket(), 150);
    SocketClient second(peer.socket(), 150);  // numbered apart: no flow id used twice
    EXPECT_EQ(second.waitForPeer(0), 0);
    const Region sealed = makeRegion(4096, "traced", kRegionSeals);
    const Region unsealed = makeRegion(4096, "traced");
    ShmMemInfo info("traced", 0, 4096, sealed.fd, sealed.addr, 1);
    ShmMemInfo bad("traced", 0, 4096, unsealed.fd, unsealed.addr, 2);
    ASSERT_EQ(peer.addFault("register:errno=EIO:times=1"), 0);
    EXPECT_EQ(client.registerShm(info), -EIO);
    EXPECT_EQ(client.registerShm(bad), -EPERM);
    ASSERT_EQ(peer.addFault("register:delay=400ms"), 0);
    EXPECT_EQ(client.registerShm(info), -ETIMEDOUT);
    EXPECT_TRUE(peer.logShows("gave up on a registration"));
    EXPECT_EQ(client.waitForPeer(0), 0);  // takes the late answers
    const pid_t child = fork();
    if (child == 0) {
      SocketClient other(peer.socket(), 2000);
      std::vector<ShmMemInfo> infos{info};
      if (other.registerShms(infos) == 0) pause();
      _exit(1);
    }
    ASSERT_TRUE(
        peer.logShows(std::to_string(child) + " uid " + std::to_string(getuid()) + " connected"));
    ASSERT_TRUE(peer.logShows("W vrocam_ipc_peer: client pid"));
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    EXPECT_TRUE(peer.logShows(std::to_string(child) + " uid 0 disconnected: released 1 memory"));
    freeRegion(sealed);
    freeRegion(unsealed);
  }
  const pid_t peerPid = peer.pid();
  EXPECT_EQ(peer.stop(), 0);
  setClientTrace(nullptr);
  const string minePath = mine->path();
  mine.reset();
  leaks.expectNoLeaks();
  const string own = read(minePath);  // finished: no spaces left past its closing bracket
  EXPECT_EQ(own.substr(own.size() - 3), "}]\n");
  const string out = home.path() + "/merged.json";
  const trace::MergeResult merged = trace::mergeTraces(home.path(), out);
  EXPECT_EQ(merged.error, 0);
  EXPECT_EQ(merged.skipped, 0u);
  for (const string& lone : merged.unmatched) {  // the child traced nothing, but this process did
    EXPECT_EQ(lone.find(" " + std::to_string(getpid()) + "."), string::npos) << lone;
  }
  const string text = read(out);
  const std::pair<string, pid_t> named[] = {
      {"fault 1 fired", peerPid},
      {"request refused", peerPid},
      {"fault 2 fired", peerPid},
      {"client gone", peerPid},
      {"timeout", getpid()},
      {"registration undone", getpid()},
      {"late answers dropped", getpid()},
      {"register", getpid()},
      {"register", peerPid},
  };
  for (const auto& [name, pid] : named) EXPECT_TRUE(holds(text, name, pid)) << name << " " << pid;
  EXPECT_NE(text.find("\"detail\":\"disconnected: released 1 memory (4096 bytes)\""), string::npos);
  unlink(out.c_str());
}

// An event is one line of JSON: times in microseconds with the nanoseconds kept, names escaped,
// the "f" end of a flow bound to its slice's end; a line that fills its slot whole is kept, one
// byte more is dropped, and a dropped event shows in the header at once.
TEST(TraceTest, EventsAreLinesOfJsonInSlots) {
  const std::pair<trace::Event, string> lines[] = {
      {trace::Event("X", "a\"b", 1234567, 7).dur(89), R"("name":"a\"b","cat":"ipc")"},
      {trace::Event("X", "x", 1234567, 7).dur(89), R"("tid":7,"ts":1234.567,"dur":0.089,"args")"},
      {trace::Event("i", "\x01", 0, 7), R"("name":"\u0001")"},
      {trace::Event("i", "x", 0, 7).arg("k", "\x1f").arg("n", -3), R"({"k":"\u001f","n":-3}})"},
      {trace::Event("f", "request", 0, 7).id("1.2"), R"("id":"1.2","bp":"e","args")"},
      {trace::Event("s", "request", 0, 7).id("1.2"), R"("id":"1.2","args")"},
      {trace::Event("i", "x", 0, 7).arg("k", string(200, 'x')), "\"" + string(120, 'x') + "\"}}"},
  };
  for (const auto& [event, part] : lines) EXPECT_NE(event.line().find(part), string::npos) << part;
  const peer::PrivateDirectory home("/tmp/vrocam-test-");
  auto file = trace::TraceFile::open(home.path(), "slots", "t", {3, false}, nullptr);
  ASSERT_TRUE(file);
  pthread_setname_np(pthread_self(), "slots-test");  // not the binary's: qemu-user runs it
  const auto sized = [](size_t size) {  // an event whose line is size bytes, by its key
    const auto make = [](size_t key) {
      return trace::Event("i", "x", 0, trace::threadId()).arg(string(key, 'k').c_str(), 0);
    };
    return make(size - make(0).line().size());
  };
  file->add(sized(trace::TraceFile::kSlot - 2));  // after the thread's name
  file->add(sized(trace::TraceFile::kSlot - 1));
  file->add(trace::Event("i", "last", 0, trace::threadId()));
  const string path = file->path();
  EXPECT_FALSE(file->failed());  // a drop is no failure
  EXPECT_NE(read(path).find(R"("dropped":1,)"), string::npos);
  EXPECT_NE(read(path).find(R"("name":"thread_name")"), string::npos);
  EXPECT_NE(read(path).find(R"("args":{"name":"slots-test"}})"), string::npos);
  file.reset();
  const string text = read(path);
  const size_t kept = text.find(string(200, 'k'));  // one line of them only
  ASSERT_NE(kept, string::npos);
  EXPECT_EQ(text.find(string(200, 'k'), text.find('\n', kept)), string::npos);
  EXPECT_NE(text.find(R"("name":"last")"), string::npos);
  unlink(path.c_str());
}

// A merge puts the metadata first and the events in order of time (of file name when equal),
// within a window when given; it reads only the regular *.json files, leaves out a line cut in
// half, and names every flow with no other end or used twice.
TEST(TraceTest, AMergeIsSortedAndNamesBrokenFlows) {
  const peer::PrivateDirectory home("/tmp/vrocam-test-");
  const auto event = [](const string& ph, int ts, const char* id) {
    return "{\"name\":\"" + ph + std::to_string(ts) + "\",\"ph\":\"" + ph + "\",\"id\":\"" + id +
           "\",\"ts\":" + std::to_string(ts) + "}";
  };
  const string dir = home.path() + "/";
  std::ofstream(dir + "client-1.json") << "[\n"
                                       << event("M", 5, "") << ",\n"
                                       << event("s", 3, "1.1") << ",  \n"
                                       << event("s", 1, "1.2") << ",\n{\"name\":\"cut\",\"ts\":";
  std::ofstream(dir + "p.json") << "[\n"
                                << event("i", 3, "") << ",\n"
                                << event("f", 2, "1.1") << ",\n"
                                << event("f", 4, "1.3") << ",\n"
                                << event("f", 6, "1.3") << "]\n";
  std::ofstream(dir + ".json") << event("i", 9, "") << "\n";  // none of these is read
  ASSERT_EQ(mkdir((dir + "sub.json").c_str(), 0700), 0);
  ASSERT_EQ(symlink("p.json", (dir + "link.json").c_str()), 0);
  const struct {
    double since, until;
    std::vector<string> order;  // the events after the metadata: ph and ts
  } windows[] = {{0, 0, {"s1", "f2", "s3", "i3", "f4", "f6"}}, {2, 4, {"f2", "s3", "i3", "f4"}}};
  for (const auto& window : windows) {
    const string out = dir + "merged.out";
    const trace::MergeResult merged =
        trace::mergeTraces(home.path(), out, window.since, window.until);
    string expected = "{\"traceEvents\":[\n" + event("M", 5, "");
    for (const string& e : window.order) expected += ",\n" + event(e.substr(0, 1), e[1] - '0', "");
    expected += "\n],\"displayTimeUnit\":\"ns\"}\n";
    string text = read(out);
    for (const char* id : {"1.1", "1.2", "1.3"}) {  // the ids, left out of the comparison
      for (size_t at; (at = text.find(id)) != string::npos;) text.erase(at, 3);
    }
    EXPECT_EQ(text, expected);
    EXPECT_EQ(merged.events, window.order.size() + 1);
    EXPECT_EQ(merged.files, 2u);
    EXPECT_EQ(merged.skipped, 1u);
    const std::vector<string> broken = {"client call 1.2 has no end in a peer",
                                        "peer handling 1.3 has no client call",
                                        "flow 1.3 is used by more than one call"};
    if (window.until == 0) {
      EXPECT_EQ(merged.unmatched, broken);
    }
    struct stat st {};
    const mode_t mask = umask(0);
    umask(mask);
    EXPECT_EQ(stat(out.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0644 & ~mask);
    unlink(out.c_str());
  }
  const pid_t full = fork();  // a merge the disk cannot take whole says so
  if (full == 0) {
    const rlimit limit{100, 100};
    signal(SIGXFSZ, SIG_IGN);
    setrlimit(RLIMIT_FSIZE, &limit);
    _exit(trace::mergeTraces(home.path(), dir + "merged.out").error == -ENOSPC ? 0 : 1);
  }
  int status = -1;
  ASSERT_EQ(waitpid(full, &status, 0), full);
  EXPECT_EQ(status, 0);
  unlink((dir + "merged.out").c_str());
  for (const char* name : {"client-1.json", "p.json", ".json", "link.json"})
    unlink((dir + name).c_str());
  rmdir((dir + "sub.json").c_str());
}

// A trace keeps to its limit, keeping the first events or the newest, and says what it dropped; a
// file whose process was killed loads; a directory that is missing, or full, is said once and
// the link goes on.
TEST(TraceTest, ATraceIsBoundedAndSafe) {
  const peer::PrivateDirectory home("/tmp/vrocam-test-");
  for (const bool newest : {false, true}) {
    const pid_t child = fork();  // a file per process: one each
    if (child == 0) {
      auto file = trace::TraceFile::open(home.path(), newest ? "newest" : "first", "t",
                                         {1000, newest}, nullptr);
      const bool made = file != nullptr;
      for (int i = 0; made && i < (newest ? 100000 : 1000000); ++i) {
        file->add(trace::Event("i", "e" + std::to_string(i), trace::nowNs(), trace::threadId()));
      }
      file.reset();  // finished: what was dropped, the closing bracket
      _exit(made ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_EQ(status, 0);
    const string text =
        read(home.path() + (newest ? "/newest-" : "/first-") + std::to_string(child) + ".json");
    EXPECT_LE(text.size(), 2 + 512 + 1001 * trace::TraceFile::kSlot);
    // The thread's name takes the first slot.
    EXPECT_NE(text.find(newest ? "\"name\":\"e99999\"" : "\"name\":\"e998\""), string::npos);
    EXPECT_EQ(text.find(newest ? "\"name\":\"e98999\"" : "\"name\":\"e999\""), string::npos);
    EXPECT_NE(text.find(newest ? "\"dropped\":99001," : "\"dropped\":999001,"), string::npos);
  }
  // A peer killed mid-trace, a file full at its size limit: both load whole.
  TestPeer killed;
  killed.options().traceDir = home.path();
  ASSERT_EQ(killed.start(), 0);
  RawClient pinging(killed.socket());
  EXPECT_EQ(pinging.send(message(peer::Kind::Ping)), 0);
  EXPECT_EQ(pinging.send(message(peer::Kind::Ping)), 0);  // the first one's slice is written
  const pid_t killedPid = killed.pid();
  EXPECT_EQ(killed.stop(SIGKILL), 128 + SIGKILL);
  const pid_t full = fork();
  if (full == 0) {
    const rlimit limit{8192, 8192};
    signal(SIGXFSZ, SIG_IGN);
    static int said = 0;
    auto file = trace::TraceFile::open(home.path(), "full", "t", {}, [](const string&) { ++said; });
    setrlimit(RLIMIT_FSIZE, &limit);
    for (int i = 0; file && i < 100; ++i) {
      file->add(trace::Event("i", "e", trace::nowNs(), trace::threadId()));
    }
    _exit(file && file->failed() && said == 1 ? 0 : 1);
  }
  int status = -1;
  ASSERT_EQ(waitpid(full, &status, 0), full);
  EXPECT_EQ(status, 0) << "a full file was not said once";
  const trace::MergeResult merged = trace::mergeTraces(home.path(), home.path() + "/all.json");
  EXPECT_EQ(merged.files, 4u);
  EXPECT_EQ(merged.skipped, 0u);
  EXPECT_NE(read(home.path() + "/all.json")
                .find("\"name\":\"ping\",\"cat\":\"ipc\",\"pid\":" + std::to_string(killedPid)),
            string::npos);
  // A missing directory: the peer serves and the client calls without their traces, each saying
  // so once.
  TestPeer untraced;
  untraced.options().traceDir = home.path() + "/none";
  ASSERT_EQ(untraced.start(), 0);
  EXPECT_TRUE(untraced.logShows("cannot make a trace in " + home.path() +
                                "/none: -2 ENOENT: No such file or directory; serving without it"));
#ifdef VROCAM_DEMO_BINARY  // a build without the demos has none to run
  int exitCode = -1;
  const string demo = runTool(
      VROCAM_DEMO_BINARY, "--regions 1 2>&1", &exitCode,
      "env VROCAM_IPC_SOCKET=" + untraced.socket() + " VROCAM_IPC_TRACE=" + home.path() + "/none ");
  EXPECT_EQ(exitCode, 0) << demo;
  const string said = "cannot make the trace " + home.path() + "/none/client-";
  EXPECT_NE(demo.find(said), string::npos) << demo;
  EXPECT_EQ(demo.find(said), demo.rfind(said)) << demo;
#endif
}

}  // namespace
}  // namespace test
}  // namespace vrocam
