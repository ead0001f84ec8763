// SPDX-License-Identifier: Apache-2.0
#include "runtime/scrivo/OutputFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include "tests/AnotherProcess.h"
#include "tests/runtime/scrivo/TraceFixture.h"

namespace Scrivo::Test {
namespace {

using testing::UnorderedElementsAre;
namespace fs = std::filesystem;

class OutputFileTest : public TraceFixture {
 protected:
  static void put(OutputFile& file, std::string_view text) {
    ASSERT_EQ(::write(file.descriptor(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }
  // Writes it in one go.
  static void make(std::string const& path, std::string_view text,
                   OutputFile::Use use = OutputFile::Use::file) {
    OutputFile file(path, use);
    put(file, text);
    file.commit();
  }
  // Why a name is refused, without the name.
  static std::string refusal(std::string const& path, OutputFile::Use use = OutputFile::Use::file) {
    try {
      make(path, "new", use);
      return "written";
    } catch (Vel::RangeException const& refused) {
      std::string const text = refused.what(), start = path + ": ";
      EXPECT_EQ(text.substr(0, start.size()), start);
      return text.substr(std::min(start.size(), text.size()));
    }
  }
  mode_t modeOf(std::string const& name) const {
    struct stat status;
    EXPECT_EQ(lstat(path(name).c_str(), &status), 0);
    return status.st_mode & 07777;
  }
};

TEST_F(OutputFileTest, ANewFileHasItsNameWhenItIsWhole) {
  mode_t const usual = umask(027);
  OutputFile file(path("new"), OutputFile::Use::file);
  umask(usual);
  put(file, "whole");
  EXPECT_FALSE(fs::exists(path("new")));
  file.commit();
  EXPECT_EQ(bytesOf("new"), "whole");
  EXPECT_EQ(modeOf("new"), 0640u);
  EXPECT_THAT(filesThere(), ElementsAre("new"));
}

TEST_F(OutputFileTest, WithoutACommitTheOldFileIsAsItWasAndNothingIsLeftBehind) {
  write("old", "old");
  {
    OutputFile file(path("old"), OutputFile::Use::stream);
    put(file, "half");
    EXPECT_EQ(filesThere().size(), 2u);
  }
  EXPECT_EQ(bytesOf("old"), "old");
  EXPECT_THAT(filesThere(), ElementsAre("old"));
}

TEST_F(OutputFileTest, AFileKeepsItsModeAndOwner) {
  write("old", "old");
  ASSERT_EQ(chmod(path("old").c_str(), 0751), 0);
  bool const giving = geteuid() == 0;
  if (giving) {
    ASSERT_EQ(chown(path("old").c_str(), 1234, 4321), 0);
    ASSERT_EQ(chmod(path("old").c_str(), 0751), 0);
  }
  make(path("old"), "new");
  EXPECT_EQ(bytesOf("old"), "new");
  EXPECT_EQ(modeOf("old"), 0751u);
  struct stat status;
  ASSERT_EQ(stat(path("old").c_str(), &status), 0);
  if (giving) {
    EXPECT_EQ(status.st_uid, 1234u);
    EXPECT_EQ(status.st_gid, 4321u);
  }
}

TEST_F(OutputFileTest, AReaderOfTheOldFileAndItsOtherNamesAreNotDisturbed) {
  write("old", "old");
  fs::create_hard_link(path("old"), path("kept"));
  make(path("old"), "new");
  EXPECT_EQ(bytesOf("kept"), "old");
  EXPECT_EQ(bytesOf("old"), "new");
}

TEST_F(OutputFileTest, NothingThatHasAnotherNameIsTouched) {
  for (char const* name : {"old", "old.new", ".old", "old~", "old.tmp"}) write(name, name);
  make(path("old"), "new");
  for (char const* name : {"old.new", ".old", "old~", "old.tmp"}) EXPECT_EQ(bytesOf(name), name);
  EXPECT_EQ(filesThere().size(), 5u);
}

TEST_F(OutputFileTest, ALinkStaysALinkAndItsTargetIsWritten) {
  fs::create_directory(path("folder"));
  write("folder/target", "old");
  fs::create_symlink("folder/second", path("first"));
  fs::create_symlink("target", path("folder/second"));
  fs::create_symlink("folder/yet to be", path("dangling"));
  fs::create_symlink(path("absolute target"), path("absolute"));
  make(path("first"), "new");
  make(path("dangling"), "made");
  make(path("absolute"), "made too");
  for (char const* link : {"first", "folder/second", "dangling", "absolute"})
    EXPECT_TRUE(fs::is_symlink(path(link))) << link;
  EXPECT_EQ(bytesOf("folder/target"), "new");
  EXPECT_EQ(bytesOf("folder/yet to be"), "made");
  EXPECT_EQ(bytesOf("absolute target"), "made too");
}

TEST_F(OutputFileTest, LinksThatLeadNowhereAreRefused) {
  fs::create_symlink("b", path("a"));
  fs::create_symlink("a", path("b"));
  EXPECT_EQ(refusal(path("a")), "Too many levels of symbolic links");
  fs::create_symlink("no/such", path("c"));
  EXPECT_EQ(refusal(path("c")), "No such file or directory");
  EXPECT_THAT(filesThere(), UnorderedElementsAre("a", "b", "c"));
}

TEST_F(OutputFileTest, AFolderAndASocketAreRefused) {
  fs::create_directory(path("folder"));
  ASSERT_EQ(mknod(path("socket").c_str(), S_IFSOCK | 0600, 0), 0);
  for (auto const use : {OutputFile::Use::file, OutputFile::Use::stream}) {
    EXPECT_EQ(refusal(path("folder"), use), "Is a directory");
    EXPECT_EQ(refusal(path("socket"), use), "is a socket");
    EXPECT_EQ(refusal(path("no/such"), use), "No such file or directory");
    EXPECT_EQ(refusal(path("socket/in"), use), "Not a directory");
    EXPECT_EQ(refusal("", use), "No such file or directory");
  }
}

TEST_F(OutputFileTest, AFifoIsWrittenInPlaceByAStreamAndRefusedForAFile) {
  ASSERT_EQ(mkfifo(path("fifo").c_str(), 0600), 0);
  fs::create_symlink("fifo", path("link"));
  EXPECT_EQ(refusal(path("fifo")), "is a FIFO");
  EXPECT_EQ(refusal(path("link")), "is a FIFO");
  int const reader = open(path("fifo").c_str(), O_RDONLY | O_NONBLOCK);
  ASSERT_GE(reader, 0);
  make(path("link"), "through", OutputFile::Use::stream);
  char got[16];
  EXPECT_EQ(std::string(got, static_cast<std::size_t>(::read(reader, got, sizeof got))), "through");
  close(reader);
  EXPECT_TRUE(fs::is_fifo(path("fifo")));
}

TEST_F(OutputFileTest, ACharacterDeviceIsWrittenInPlaceByAStreamAndRefusedForAFileAndDisksAreRefused) {
  // Not the real one: where this fails, no other program shall suffer.
  if (mknod(path("null").c_str(), S_IFCHR | 0600, makedev(1, 3)) != 0)
    GTEST_SKIP() << "only root makes a device";
  EXPECT_EQ(refusal(path("null")), "is a device");
  // A file system may be mounted without devices.
  int const opened = open(path("null").c_str(), O_WRONLY);
  if (opened >= 0) {
    close(opened);
    EXPECT_EQ(refusal(path("null"), OutputFile::Use::stream), "written");
  }
  ASSERT_EQ(mknod(path("disk").c_str(), S_IFBLK | 0600, makedev(7, 200)), 0);
  EXPECT_EQ(refusal(path("disk"), OutputFile::Use::stream), "is a block device");
  EXPECT_TRUE(fs::is_character_file(path("null")));
  EXPECT_TRUE(fs::is_block_file(path("disk")));
}

TEST_F(OutputFileTest, AFileThatMayNotBeWrittenIsRefusedThoughItsFolderWouldAllowARename) {
  write("old", "old");
  ASSERT_EQ(chmod(path("old").c_str(), 0444), 0);
  ASSERT_EQ(chmod(path("").c_str(), 0777), 0);
  auto const ended = inACopy([this](int end) {
    if (geteuid() == 0 && seteuid(65534) != 0) _exit(3);
    say(end, refusal(path("old")));
  });
  EXPECT_EQ(ended.status, 0);
  EXPECT_EQ(ended.said, "Permission denied");
  EXPECT_EQ(bytesOf("old"), "old");
}

TEST_F(OutputFileTest, AFileWithoutANameCannotBeReplaced) {
  write("gone", "gone");
  int const open = ::open(path("gone").c_str(), O_RDONLY);
  ASSERT_GE(open, 0);
  fs::remove(path("gone"));
  EXPECT_EQ(refusal("/proc/self/fd/" + std::to_string(open)), "leads to a file without a name");
  ::close(open);
  EXPECT_THAT(filesThere(), IsEmpty());
}

TEST_F(OutputFileTest, AnOutputOfAProcessThatGoesOnHasItsNameEarlyAndIsWrittenFurther) {
  OutputFile file(path("log"), OutputFile::Use::stream);
  put(file, "header");
  file.name();
  EXPECT_EQ(bytesOf("log"), "header");
  put(file, ", more");
  EXPECT_EQ(bytesOf("log"), "header, more");
  file.commit();
  EXPECT_EQ(bytesOf("log"), "header, more");
  EXPECT_THAT(filesThere(), ElementsAre("log"));
}

TEST_F(OutputFileTest, AFailedRenameLeavesNothingBehind) {
  OutputFile file(path("place"), OutputFile::Use::file);
  fs::create_directory(path("place"));
  EXPECT_THROW(file.commit(), Vel::RangeException);
  EXPECT_THAT(filesThere(), ElementsAre("place"));
}

TEST_F(OutputFileTest, AProcessThatEndsAtOnceTakesItsUnfinishedFilesAway) {
  OutputFile first(path("first"), OutputFile::Use::file), second(path("second"), OutputFile::Use::file);
  { OutputFile const third(path("third"), OutputFile::Use::file); }
  first.commit();
  EXPECT_EQ(filesThere().size(), 2u);
  OutputFile::abandonAll();
  EXPECT_THAT(filesThere(), ElementsAre("first"));
}

TEST_F(OutputFileTest, ALongNameHasRoomForWhatIsWrittenBeside) {
  std::string const name(255, 'n');
  make(path(name), "long");
  EXPECT_EQ(bytesOf(name), "long");
}

}  // namespace
}  // namespace Scrivo::Test
