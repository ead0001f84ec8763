// SPDX-License-Identifier: Apache-2.0
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <random>

#include "runtime/scrivo/CycleCounter.h"
#include "tests/AnotherProcess.h"
#include "tests/Thorough.h"
#include "tests/runtime/scrivo/TraceFixture.h"

namespace Scrivo::Test {
namespace {

using Dova::IpGenAddr;

class TraceFileTest : public TraceFixture {
 protected:
  std::string refusal(std::string const& where, TraceOptions const& options = {}) {
    try {
      TraceFile::open(where, options);
      return "opened";
    } catch (Vel::RangeException const& exception) {
      return exception.what();
    }
  }
};

// A message whose parts depend on its number, so that mixed parts of two messages are noticed.
void writeNumbered(int number) {
  SCRIVO_MESSAGE("Numbered", "n=", number, " ", std::string(static_cast<std::size_t>(number % 97), 'x'),
                 " group=", IpGenAddr::ipv4(static_cast<U32>(number)), " negative=", -number);
}

std::string numberedText(int number) {
  return "n=" + std::to_string(number) + " " + std::string(static_cast<std::size_t>(number % 97), 'x') +
         " group=" + toText(IpGenAddr::ipv4(static_cast<U32>(number))) +
         " negative=" + std::to_string(-number);
}

// The number of the newest message; all of them must be whole, and follow each other without a gap.
int newestOf(TraceReader const& reader) {
  EXPECT_EQ(reader.damaged(), 0u);
  int number = static_cast<int>(reader.lost(EventKind::message)) - 1;
  for (Event const& event : reader.events())
    if (event.kind == EventKind::message) number = static_cast<int>(std::get<2>(event.arguments[0]));
  int expected = number;
  for (std::size_t i = reader.events().size(); i-- > 0;) {
    Event const event = reader.events()[i];
    if (event.kind != EventKind::message) continue;
    EXPECT_EQ(event.text, numberedText(expected));
    --expected;
  }
  return number;
}

TEST_F(TraceFileTest, IsThereFromOpenToClose) {
  EXPECT_EQ(TraceFile::current(), nullptr);
  TraceFile& file = TraceFile::open(path());
  EXPECT_EQ(TraceFile::current(), &file);
  U64 const generation = file.generation();
  EXPECT_NE(TraceFile::open(path("other")).generation(), generation);
  EXPECT_NE(TraceFile::current(), nullptr);
  TraceFile::close();
  EXPECT_EQ(TraceFile::current(), nullptr);
  TraceFile::close();
  EXPECT_EQ(TraceFile::current(), nullptr);
}

TEST_F(TraceFileTest, HasTheSizeOfItsPartsForEver) {
  TraceFile::open(path(), {.messageBytes = 10001, .timerBytes = 8192, .descriptorBytes = 999});
  EXPECT_EQ(std::filesystem::file_size(path()), 4096u + 10008u + 8192u + 1000u);
  for (int i = 0; i < 2000; ++i) writeNumbered(i);
  EXPECT_EQ(std::filesystem::file_size(path()), 4096u + 10008u + 8192u + 1000u);
  EXPECT_EQ(newestOf(TraceReader(path())), 1999);
}

TEST_F(TraceFileTest, KeepsOnlyWholeRecordsOfWhichTheNewestIsLastWhenItWrapsAround) {
  TraceFile::open(path(), smallest);
  for (int i = 0; i < 3000; ++i) {
    writeNumbered(i);
    if (i % 7 != 0) continue;
    TraceReader const reader(path());
    ASSERT_EQ(newestOf(reader), i);
    ASSERT_EQ(reader.lost(EventKind::message) + reader.events().size(), static_cast<U64>(i) + 1);
    if (i > 300) {
      ASSERT_GT(reader.events().size(), 40u);
      ASSERT_GT(reader.lost(EventKind::message), 0u);
    }
  }
}

TEST_F(TraceFileTest, FillsTheEndOfARingWithoutTouchingWhatLiesBehindIt) {
  TraceFile::open(path(), smallest);
  { SCRIVO_BLOCK_TIMER("T", "the first of the ring behind"); }
  for (int i = 0; i < 1000; ++i) SCRIVO_MESSAGE("T", "n ", i);  // 24 bytes: eight are left at the end
  TraceReader const reader(path());
  EXPECT_EQ(reader.damaged(), 0u);
  EXPECT_EQ(reader.lost(EventKind::message), 1000u - 8192 / 24);
  EXPECT_THAT(timers(), testing::SizeIs(1));
}

TEST_F(TraceFileTest, HoldsWhatAQueueOfRecordsWouldHold) {
  for (unsigned seed = 1; seed <= 20; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    std::uniform_int_distribution<std::size_t> length(0, 300);
    TraceFile::open(path(), {.messageBytes = 8192 + 8 * (random() % 100), .timerBytes = 8192});
    std::vector<std::string> written;
    for (int i = 0; i < 400; ++i) {
      std::string const text(length(random), static_cast<char>('a' + i % 26)), other(length(random), '.');
      SCRIVO_MESSAGE("T", text, "|", i, "|", other);
      written.push_back(text.substr(0, 255) + "|" + std::to_string(i) + "|" + other.substr(0, 255));
    }
    TraceReader const reader(path());
    ASSERT_EQ(reader.damaged(), 0u);
    std::size_t const kept = reader.events().size(), lost = reader.lost(EventKind::message);
    ASSERT_EQ(lost + kept, written.size());
    // The next record could not have been kept as well: at most one record and one filler are free.
    ASSERT_GE(kept, (8192u - 2 * 600u) / 560u);
    for (std::size_t i = 0; i < kept; ++i) ASSERT_EQ(reader.events()[i].text, written[lost + i]);
  }
}

TEST_F(TraceFileTest, StillWritesLargestRecordsIntoTheSmallestRing) {
  TraceFile::open(path(), smallest);
  std::string const s(255, 's');
  for (int i = 0; i < 50; ++i) {
    SCRIVO_MESSAGE("T", s, s, s, s, s, s, s, s, s, s, s, s, s, s, s);
    std::vector<std::string> const kept = messages();
    ASSERT_GE(kept.size(), 1u) << i;
    for (std::string const& text : kept) ASSERT_EQ(text, std::string(15 * 255, 's'));
    TraceReader const reader(path());
    ASSERT_EQ(reader.damaged(), 0u);
    ASSERT_EQ(reader.lost(EventKind::message) + kept.size(), static_cast<U64>(i) + 1);
  }
}

TEST_F(TraceFileTest, OrdersMessagesAndBlockTimersByTime) {
  TraceFile::open(path());
  for (int i = 0; i < 3; ++i) {
    SCRIVO_BLOCK_TIMER("T", "block");
    SCRIVO_MESSAGE("T", "message ", i);
  }
  std::vector<std::string> order;
  TraceReader const reader(path());
  U64 last = 0;
  for (Event const& event : reader.events()) {
    order.push_back(event.text);
    EXPECT_GE(event.counter, last);
    last = event.counter;
  }
  EXPECT_THAT(order, ElementsAre("message 0", "block", "message 1", "block", "message 2", "block"));
}

TEST_F(TraceFileTest, TellsTimeInSecondsSinceItWasOpened) {
  U64 const before = clockNanoseconds(CLOCK_REALTIME);
  TraceFile::open(path());
  U64 const after = clockNanoseconds(CLOCK_REALTIME);
  U64 const start = clockNanoseconds(CLOCK_MONOTONIC);
  usleep(150000);
  SCRIVO_MESSAGE("T", "late");
  double const slept = static_cast<double>(clockNanoseconds(CLOCK_MONOTONIC) - start) / 1e9;
  TraceReader const whileOpen(path());
  EXPECT_GE(whileOpen.realtimeAtOpen(), before);
  EXPECT_LE(whileOpen.realtimeAtOpen(), after);
  ASSERT_EQ(whileOpen.events().size(), 1u);
  EXPECT_NEAR(whileOpen.events()[0].seconds, slept, 0.05);
  TraceFile::close();
  TraceReader const closed(path());
  EXPECT_NEAR(closed.events()[0].seconds, slept, 0.05);
  EXPECT_NEAR(static_cast<double>(closed.countsPerSecond()), static_cast<double>(whileOpen.countsPerSecond()),
              0.05 * static_cast<double>(whileOpen.countsPerSecond()));
}

TEST_F(TraceFileTest, RefusesAPathThatCannotBeMadeAndKeepsTheOpenFile) {
  TraceFile::open(path());
  EXPECT_EQ(refusal(path("no/such")), path("no/such") + ": No such file or directory");
  std::filesystem::create_directory(path("folder"));
  EXPECT_EQ(refusal(path("folder")), path("folder") + ": Is a directory");
  SCRIVO_MESSAGE("T", "still here");
  EXPECT_THAT(messages(), ElementsAre("still here"));
  EXPECT_THAT(filesThere(), testing::UnorderedElementsAre("trace", "folder"));
}

TEST_F(TraceFileTest, RefusesAFifoAndLeavesItThere) {
  ASSERT_EQ(mkfifo(path("fifo").c_str(), 0600), 0);
  EXPECT_EQ(refusal(path("fifo")), path("fifo") + ": is a FIFO");
  EXPECT_TRUE(std::filesystem::is_fifo(path("fifo")));
  EXPECT_THAT(filesThere(), ElementsAre("fifo"));
}

TEST_F(TraceFileTest, FollowsALinkToItsTargetAndKeepsTheModeOfAFileThere) {
  write("target", "older");
  ASSERT_EQ(chmod(path("target").c_str(), 0640), 0);
  std::filesystem::create_symlink("target", path());
  TraceFile::open(path());
  SCRIVO_MESSAGE("T", "through the link");
  EXPECT_TRUE(std::filesystem::is_symlink(path()));
  EXPECT_THAT(messages("target"), ElementsAre("through the link"));
  struct stat status;
  ASSERT_EQ(stat(path("target").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0640u);
  TraceFile::open(path("new"));
  ASSERT_EQ(stat(path("new").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0600u);
}

TEST_F(TraceFileTest, CanBeRotatedByARenameAndAnotherOpen) {
  TraceFile::open(path());
  SCRIVO_MESSAGE("T", "first");
  std::filesystem::rename(path(), path("trace.1"));
  SCRIVO_MESSAGE("T", "still into the first");
  TraceFile::open(path());
  SCRIVO_MESSAGE("T", "second");
  EXPECT_THAT(messages("trace.1"), ElementsAre("first", "still into the first"));
  EXPECT_THAT(messages(), ElementsAre("second"));
}

// For a process that handles SIGBUS.
TEST_F(TraceFileTest, KnowsWhichAddressesLieInTheFile) {
  TraceFile const& file = TraceFile::open(path(), smallest);
  static TraceFile const* asked = &file;
  asked = &file;
  auto const ended = inACopy([this](int end) {
    // A child of fork(2) has no file open, so it opens one.
    asked = &TraceFile::open(path("of the copy"), smallest);
    static int said;
    said = end;
    struct sigaction action = {};
    action.sa_flags = SA_SIGINFO;
    action.sa_sigaction = [](int, siginfo_t* info, void*) {
      say(said, asked->contains(info->si_addr) ? "truncated" : "elsewhere");
      _exit(0);
    };
    sigaction(SIGBUS, &action, nullptr);
    if (truncate(path("of the copy").c_str(), 0) != 0) _exit(3);
    SCRIVO_MESSAGE("T", "into nothing");
    _exit(4);
  });
  EXPECT_EQ(ended.said, "truncated");
  EXPECT_EQ(ended.status, 0);
  int outside = 0;
  EXPECT_FALSE(file.contains(&outside));
  EXPECT_FALSE(file.contains(nullptr));
}

TEST_F(TraceFileTest, RefusesSizesThatAreOutOfRange) {
  EXPECT_EQ(refusal(path(), {.messageBytes = 8191}),
            path() + ": messageBytes is 8191, not 8192 to 1073741824");
  EXPECT_EQ(refusal(path(), {.timerBytes = ~U64(0)}),
            path() + ": timerBytes is 18446744073709551615, not 8192 to 1073741824");
  EXPECT_EQ(refusal(path(), {.descriptorBytes = (64 << 20) + 1}),
            path() + ": descriptorBytes is 67108865, not 0 to 67108864");
  EXPECT_EQ(TraceFile::current(), nullptr);
  EXPECT_THAT(filesThere(), IsEmpty());
  EXPECT_EQ(refusal(path(), {.messageBytes = 8192, .timerBytes = 8192, .descriptorBytes = 64 << 20}),
            "opened");
}

TEST_F(TraceFileTest, RefusesAFileThatFindsNoSpaceAndKeepsTheOldOneOfItsName) {
  TraceFile::open(path());
  SCRIVO_MESSAGE("T", "old");
  TraceFile::close();

  rlimit usual;
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &usual), 0);
  rlimit const tight = {1 << 20, usual.rlim_max};
  auto const handler = signal(SIGXFSZ, SIG_IGN);
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &tight), 0);
  std::string const reason = refusal(path());
  setrlimit(RLIMIT_FSIZE, &usual);
  signal(SIGXFSZ, handler);

  EXPECT_EQ(reason, path() + ": File too large");
  EXPECT_EQ(TraceFile::current(), nullptr);
  EXPECT_THAT(filesThere(), ElementsAre("trace"));
  EXPECT_THAT(messages(), ElementsAre("old"));
}

TEST_F(TraceFileTest, LeavesAReaderOfTheReplacedFileAlone) {
  TraceFile::open(path());
  SCRIVO_MESSAGE("T", "old");
  std::filesystem::create_hard_link(path(), path("kept"));
  TraceFile::open(path());
  SCRIVO_MESSAGE("T", "new");
  EXPECT_THAT(messages("kept"), ElementsAre("old"));
  EXPECT_THAT(messages(), ElementsAre("new"));
}

TEST_F(TraceFileTest, SurvivesAScribbleOfSomeoneElseOverItsRings) {
  for (char const fill : {'\0', '\1', '\x7f', '\xff'}) {
    TraceFile::open(path(), smallest);
    for (int i = 0; i < 500; ++i) writeNumbered(i);
    std::string const scribble(std::filesystem::file_size(path()), fill);
    int const file = ::open(path().c_str(), O_WRONLY);
    ASSERT_EQ(pwrite(file, scribble.data(), scribble.size(), 0), static_cast<ssize_t>(scribble.size()));
    ::close(file);
    for (int i = 0; i < 1000; ++i) writeNumbered(i);
    for (int i = 0; i < 1000; ++i) {
      SCRIVO_BLOCK_TIMER("T", "block");
    }
    EXPECT_EQ(std::filesystem::file_size(path()), scribble.size());
    EXPECT_EQ(verdict(), "not a trace file: it does not begin like one");
  }
}

// A child process that ends with this object at the latest, whatever becomes of the test.
class Child {
 public:
  template <class Body>
  explicit Child(Body const& body) : pid_(fork()) {
    if (pid_ != 0) return;
    alarm(120);
    body();
    _exit(0);
  }
  Child(Child const&) = delete;
  Child& operator=(Child const&) = delete;
  ~Child() { killed(); }

  // True if it ran until now.
  bool killed() {
    if (pid_ <= 0 || ended_) return false;
    kill(pid_, SIGKILL);
    wait();
    return WIFSIGNALED(status_) && WTERMSIG(status_) == SIGKILL;
  }

  // True if it came to the end of its body.
  bool finished() {
    wait();
    return ended();
  }
  bool ended() const { return ended_ && WIFEXITED(status_) && WEXITSTATUS(status_) == 0; }

  // True if it stopped by this signal.
  bool stoppedBy(int signal) {
    wait();
    return !ended_ && WIFSTOPPED(status_) && WSTOPSIG(status_) == signal;
  }

  // Moves on by one machine instruction, if there is another.
  bool stepped() { return ptrace(PTRACE_SINGLESTEP, pid_, nullptr, nullptr) == 0 && stoppedBy(SIGTRAP); }

 private:
  void wait() {
    if (!ended_ && waitpid(pid_, &status_, 0) == pid_) ended_ = !WIFSTOPPED(status_);
  }

  pid_t pid_;
  int status_ = 0;
  bool ended_ = false;
};

TEST_F(TraceFileTest, StaysWithTheParentOfAFork) {
  TraceFile::open(path());
  Child child([] {
    if (TraceFile::current() != nullptr) _exit(1);
    SCRIVO_MESSAGE("T", "from the child");
  });
  EXPECT_TRUE(child.finished());
  SCRIVO_MESSAGE("T", "from the parent");
  EXPECT_THAT(messages(), ElementsAre("from the parent"));
}

[[noreturn]] void writeForEver(std::string const& path, TraceOptions const& options) {
  TraceFile::open(path, options);
  for (int i = 0;; ++i) {
    SCRIVO_BLOCK_TIMER("T", __PRETTY_FUNCTION__);
    writeNumbered(i);
  }
}

TEST_F(TraceFileTest, IsReadableWhileItIsWrittenAndAfterAKillAtAnyMoment) {
  for (int round = 0; round < 10; ++round) {
    std::string const name = "trace" + std::to_string(round);
    TraceOptions options = smallest;
    options.messageBytes = round % 2 == 0 ? 8192 : 1 << 17;
    Child child([&] { writeForEver(path(name), options); });
    auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!std::filesystem::exists(path(name)) && std::chrono::steady_clock::now() < deadline) usleep(100);
    U64 lost = 0;
    for (int snapshots = 0; std::chrono::steady_clock::now() < deadline && (snapshots < 5 || lost < 2000);
         ++snapshots) {
      TraceReader const reader(path(name));
      newestOf(reader);
      lost = reader.lost(EventKind::message);
    }
    usleep(static_cast<useconds_t>(round * 37));
    ASSERT_TRUE(child.killed());
    ASSERT_GE(lost, 2000u);

    TraceReader const reader(path(name));
    EXPECT_GT(newestOf(reader), 2000);
    std::size_t const kept = static_cast<std::size_t>(
        std::count_if(reader.events().begin(), reader.events().end(),
                      [](Event const& event) { return event.kind == EventKind::message; }));
    EXPECT_GT(kept, 40u);
    EXPECT_GT(reader.events().size() - kept, 100u);
    EXPECT_GT(reader.lost(EventKind::blockTimer), 0u);
    if (HasFailure()) return;
  }
}

TEST_F(TraceFileTest, KeepsWhatWasWrittenThroughManyKillsAtRandomMoments) {
  unsigned const seed = std::random_device()();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  int wrapped = 0;
  for (int round = 0; round < (Routing::thorough() ? 60 : 30); ++round) {
    TraceOptions options = smallest;
    options.messageBytes = 8192 + 8 * (random() % 4000);
    options.timerBytes = 8192 + 8 * (random() % 4000);
    std::filesystem::remove(path());
    Child child([&] { writeForEver(path(), options); });
    auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!std::filesystem::exists(path()) && std::chrono::steady_clock::now() < deadline) usleep(20);
    usleep(static_cast<useconds_t>(random() % 8000));
    ASSERT_TRUE(child.killed());

    ASSERT_EQ(std::filesystem::file_size(path()),
              4096 + options.descriptorBytes + options.messageBytes + options.timerBytes);
    TraceReader const reader(path());
    newestOf(reader);
    U64 kept[2] = {};
    for (Event const& event : reader.events()) ++kept[Format::ringIndex(event.kind)];
    // The child wrote both in turn. It may have been killed between them, and between counting the few
    // records that it was about to overwrite and giving them up.
    U64 const messages = reader.lost(EventKind::message) + kept[0];
    U64 const timers = reader.lost(EventKind::blockTimer) + kept[1];
    EXPECT_LE(messages > timers ? messages - timers : timers - messages, 10u);
    if (reader.lost(EventKind::message) > 0 && reader.lost(EventKind::blockTimer) > 0) ++wrapped;
    if (HasFailure()) return;
  }
  EXPECT_GT(wrapped, 0);
}

TEST_F(TraceFileTest, IsReadableAfterEverySingleInstructionOfItsWriter) {
  // Find a message that starts the ring again; by then every message needs the room of older ones.
  TraceFile::open(path("rehearsal"), smallest);
  auto const rounds = [this] {
    Format::FileHeader header;
    std::memcpy(&header, bytesOf("rehearsal").data(), sizeof header);
    return header.ringStates[0].head / header.rings[0].bytes;
  };
  int last = 0;
  for (writeNumbered(last); last < 200 || rounds() < 3;) writeNumbered(++last);
  int const first = last - 2;

  Child child([&] {
    TraceFile::open(path(), smallest);
    for (int i = 0; i < first; ++i) writeNumbered(i);
    if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) return;
    raise(SIGSTOP);
    for (int i = first; i <= last; ++i) writeNumbered(i);
  });
  if (!child.stoppedBy(SIGSTOP)) GTEST_SKIP() << "this process may not trace its children";
  int newest = newestOf(TraceReader(path())), readings = 0;
  EXPECT_EQ(newest, first - 1);
  std::string known = bytesOf();
  int const file = ::open(path().c_str(), O_RDONLY | O_CLOEXEC);
  void* const mapping = mmap(nullptr, known.size(), PROT_READ, MAP_SHARED, file, 0);
  ::close(file);
  ASSERT_NE(mapping, MAP_FAILED);
  while (!HasFailure() && child.stepped()) {
    // Most instructions leave the file alone.
    if (std::memcmp(mapping, known.data(), known.size()) == 0) continue;
    std::memcpy(known.data(), mapping, known.size());
    ++readings;
    int const now = newestOf(TraceReader(path()));
    EXPECT_THAT(now, testing::AnyOf(newest, newest + 1));
    newest = now;
  }
  munmap(mapping, known.size());
  EXPECT_TRUE(child.ended());
  EXPECT_EQ(newest, last);
  EXPECT_GT(readings, 20);
}

}  // namespace
}  // namespace Scrivo::Test
