// The files of a journal: their bound, and what is left of them after a crash.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <csignal>
#include <filesystem>
#include <fstream>

#include "journal/FileWriter.h"
#include "tests/journal/Records.h"
#include "tests/support/TempDir.h"

namespace Journal {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

constexpr uint64_t plenty = 64 << 20;

class JournalFiles : public testing::Test {
 protected:
  std::string directory() const { return directory_.file("journal"); }
  static void write(FileWriter& writer, const std::string& records) {
    size_t written = 0;
    writer.write(records, &written);
    EXPECT_EQ(written, records.size());
  }
  std::string onlyFile() const { return filesIn(directory()).at(0).path; }
  void append(const std::string& bytes) const {
    std::ofstream(onlyFile(), std::ios::app | std::ios::binary) << bytes;
  }

  const TestSupport::TempDir directory_;
};

TEST_F(JournalFiles, AreGoneOnWithAndNobodyElseMayReadThem) {
  {
    FileWriter writer(directory(), plenty);
    EXPECT_EQ(writer.lastSequence(), 0u);
    write(writer, requestBytes(1) + requestBytes(2));
  }
  FileWriter writer(directory(), plenty);
  EXPECT_EQ(writer.lastSequence(), 2u);
  EXPECT_EQ(writer.found(), "");
  write(writer, requestBytes(3));
  EXPECT_THAT(found(filesIn(directory())).sequences, ElementsAre(1, 2, 3));
  struct stat status {};
  ASSERT_EQ(stat(onlyFile().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0600u);
  ASSERT_EQ(stat(directory().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0700u);
}

TEST_F(JournalFiles, HaveOneWriter) {
  EXPECT_FALSE(isBeingWritten(directory()));
  const FileWriter writer(directory(), plenty);
  EXPECT_TRUE(isBeingWritten(directory()));
  EXPECT_THROW(FileWriter(directory(), plenty), std::system_error);
}

// An agent may be killed at any byte of a write.
TEST_F(JournalFiles, DropATornRecordWhereverItEnds) {
  const std::string torn = requestBytes(3, "the message of the last record");
  for (size_t size = 1; size < torn.size(); ++size) {
    SCOPED_TRACE(size);
    std::filesystem::remove_all(directory());
    {
      FileWriter writer(directory(), plenty);
      write(writer, requestBytes(1) + requestBytes(2));
    }
    append(torn.substr(0, size));
    const Found before = found(filesIn(directory()));
    EXPECT_THAT(before.sequences, ElementsAre(1, 2));
    EXPECT_THAT(before.notes, ElementsAre(HasSubstr("are no whole record")));
    FileWriter writer(directory(), plenty);
    EXPECT_EQ(writer.lastSequence(), 2u);
    EXPECT_THAT(writer.found(), HasSubstr("the last " + std::to_string(size) + " bytes of"));
    write(writer, requestBytes(3));
    const Found after = found(filesIn(directory()));
    EXPECT_THAT(after.sequences, ElementsAre(1, 2, 3));
    EXPECT_THAT(after.notes, IsEmpty());
  }
}

TEST_F(JournalFiles, MayHaveBegunWithoutTheirMark) {
  for (size_t size = 0; size < fileMark.size(); ++size) {
    SCOPED_TRACE(size);
    std::filesystem::remove_all(directory());
    std::filesystem::create_directory(directory());
    std::ofstream(filePath(directory(), 1)) << fileMark.substr(0, size);
    EXPECT_THAT(found(filesIn(directory())).sequences, IsEmpty());
    FileWriter writer(directory(), plenty);
    write(writer, requestBytes(1));
    EXPECT_THAT(found(filesIn(directory())).sequences, ElementsAre(1));
  }
}

TEST_F(JournalFiles, KeepWhatIsAroundADamagedRecord) {
  {
    FileWriter writer(directory(), plenty);
    write(writer, requestBytes(1) + requestBytes(2) + requestBytes(3));
  }
  std::fstream file(onlyFile(), std::ios::in | std::ios::out | std::ios::binary);
  file.seekp(static_cast<std::streamoff>(fileMark.size() + requestBytes(1).size() + headBytes));
  file << 'X';
  file.close();
  {
    FileWriter writer(directory(), plenty);
    EXPECT_THAT(writer.found(), HasSubstr("damaged at byte"));
    write(writer, requestBytes(4));
  }
  const Found after = found(filesIn(directory()));
  EXPECT_THAT(after.sequences, ElementsAre(1, 4));
  EXPECT_THAT(after.notes, ElementsAre(HasSubstr("damaged at byte")));
}

// A power failure may leave a file its length, and zeros.
TEST_F(JournalFiles, GoOnBehindAFileWithAWrongBegin) {
  {
    FileWriter writer(directory(), plenty);
    write(writer, requestBytes(7));
  }
  std::ofstream(filePath(directory(), 2)) << std::string(5000, '\0');
  {
    FileWriter writer(directory(), plenty);
    EXPECT_THAT(writer.found(), HasSubstr("journal-000002.kj is no file of a journal"));
    EXPECT_EQ(writer.lastSequence(), 7u);
    write(writer, requestBytes(8));
  }
  const Found all = found(filesIn(directory()));
  EXPECT_THAT(all.sequences, ElementsAre(7, 8));
  EXPECT_THAT(all.notes, ElementsAre(HasSubstr("journal-000002.kj is no file of a journal")));
}

TEST_F(JournalFiles, ThatGoWhileTheyAreReadAreTold) {
  {
    FileWriter writer(directory(), 1 << 20);
    for (uint64_t i = 1; i <= 2; ++i) write(writer, requestBytes(i, std::string(200'000, 'x')));
  }
  const auto files = filesIn(directory());
  ASSERT_THAT(files, SizeIs(2));
  Reader reader(files);
  std::filesystem::remove(files[0].path);
  EXPECT_EQ(reader.next()->sequence, 2u);
  EXPECT_TRUE(reader.hasLostFiles());
  EXPECT_THAT(reader.notes(), ElementsAre(HasSubstr("has made room")));
}

TEST_F(JournalFiles, StayWithinTheirBoundAndKeepTheNewest) {
  constexpr uint64_t most = 1 << 20;
  const std::string message(1000, 'x');
  {
    FileWriter writer(directory(), most);
    for (uint64_t sequence = 1; sequence <= 5000; ++sequence) {
      write(writer, requestBytes(sequence, message));
      ASSERT_LE(writer.bytes(), most);
    }
  }
  uint64_t bytes = 0;
  for (const File& file : filesIn(directory())) bytes += std::filesystem::file_size(file.path);
  EXPECT_LE(bytes, most);
  EXPECT_GT(bytes, most / 2);
  const Found kept = found(filesIn(directory()));
  ASSERT_FALSE(kept.sequences.empty());
  EXPECT_EQ(kept.sequences.back(), 5000u);
  EXPECT_EQ(kept.sequences.front(), 5001 - kept.sequences.size());
  EXPECT_EQ(FileWriter(directory(), most).lastSequence(), 5000u);
}

// The next process reads the newest one before it serves.
TEST_F(JournalFiles, OfALargeJournalAreSmallAllTheSame) {
  constexpr uint64_t most = uint64_t{1} << 40;
  const std::string message(1 << 20, 'x');
  {
    FileWriter writer(directory(), most);
    for (uint64_t sequence = 1; sequence <= 20; ++sequence) {
      write(writer, requestBytes(sequence, message));
    }
  }
  for (const File& file : filesIn(directory())) {
    EXPECT_LE(std::filesystem::file_size(file.path), uint64_t{9} << 20);
  }
  EXPECT_EQ(FileWriter(directory(), most).lastSequence(), 20u);
}

// A limit of the process stands for a full disk.
TEST_F(JournalFiles, AreWholeWhenThereIsNoRoomForTheNextOne) {
  FileWriter writer(directory(), 1 << 20);
  write(writer, requestBytes(1, std::string(200'000, 'x')));
  rlimit former{};
  getrlimit(RLIMIT_FSIZE, &former);
  signal(SIGXFSZ, SIG_IGN);
  const rlimit none{0, former.rlim_max};
  setrlimit(RLIMIT_FSIZE, &none);
  for (int i = 0; i < 2; ++i) {
    size_t written = 1;
    EXPECT_THROW(writer.write(requestBytes(2), &written), std::system_error);
    EXPECT_EQ(written, 0u);
  }
  setrlimit(RLIMIT_FSIZE, &former);
  signal(SIGXFSZ, SIG_DFL);
  write(writer, requestBytes(3));
  const Found all = found(filesIn(directory()));
  EXPECT_THAT(all.sequences, ElementsAre(1, 3));
  EXPECT_THAT(all.notes, IsEmpty());
}

TEST_F(JournalFiles, ThatCannotBeReadAreNamed) {
  const auto messageOf = [](const auto& read) -> std::string {
    try {
      read();
    } catch (const std::exception& e) {
      return e.what();
    }
    return "";
  };
  EXPECT_THAT(messageOf([&] { filesAt(directory()); }), HasSubstr(directory()));
  std::filesystem::create_directory(directory());
  EXPECT_THAT(messageOf([&] { filesAt(directory()); }), HasSubstr("there is no journal in"));
  const std::string other = directory() + "/journal-000001.kj";
  std::ofstream(other) << "something else";
  EXPECT_THAT(messageOf([&] { found(filesAt(other)); }), HasSubstr(other + " is no file of"));
  std::filesystem::remove(other);
  std::filesystem::create_directory(other);
  EXPECT_THAT(messageOf([&] { found({{1, other}}); }), HasSubstr(other));
}

}  // namespace
}  // namespace Journal
