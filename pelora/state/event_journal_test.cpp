#include "pelora/state/event_journal.hpp"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <map>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/temp_directory.hpp"

namespace pelora::detail {
namespace {

constexpr std::size_t kSmallRing = 64 * 1024;

// The text of record `i` of `thread`: its length varies so that records pad out laps at every
// offset, and its content tells a torn copy from a whole one.
std::string recordText(int thread, int i) {
  const std::string id = std::to_string(thread) + ":" + std::to_string(i) + ":";
  const std::size_t length = 1 + (static_cast<std::size_t>(i) * 7919 + thread * 31) % 700;
  std::string text = id;
  while (text.size() < id.size() + length)
    text.push_back(static_cast<char>('a' + text.size() % 26));
  return text;
}

class EventJournalTest : public ::testing::Test {
 protected:
  std::unique_ptr<EventJournal> create(std::size_t capacity = kSmallRing) {
    return EventJournal::create(dir.path(), owner, capacity);
  }
  test::TempDirectory dir{"pelora-journal"};
  const std::string owner = (dir.path() / "events").native();
};

// Records come out whole and in order across many laps of the ring, padding included, while
// threads append and a drainer releases at once; nothing is lost or doubled.
TEST_F(EventJournalTest, ThreadsAppendWhileOneDrainerTakesEverythingInOrder) {
  auto journal = create();
  ASSERT_TRUE(journal) << std::strerror(errno);
  constexpr int kThreads = 4;
  constexpr int kRecords = 5000;  // about 40 laps of the ring
  std::atomic<int> running{kThreads};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kRecords; ++i) {
        ASSERT_NE(journal->append(recordText(t, i)), EventJournal::Appended::tooLarge);
      }
      running.fetch_sub(1);
    });
  }
  std::map<int, int> next;  // per thread, the record expected next
  int taken = 0;
  while (running.load() > 0 || !journal->empty()) {
    std::uint64_t end = 0;
    const auto records = journal->published(end);
    for (const auto& record : records) {
      const int thread = std::stoi(std::string(record.text.substr(0, record.text.find(':'))));
      const std::string expected = recordText(thread, next[thread]++);
      ASSERT_EQ(record.text, expected);
      ++taken;
    }
    journal->release(end);
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(taken, kThreads * kRecords);
  EXPECT_EQ(journal->append(std::string(journal->maxText() + 1, 'x')),
            EventJournal::Appended::tooLarge);
}

// A journal whose owner lives cannot be adopted; once the owner is gone, whoever adopts it finds
// every record not yet released and the drain that was under way.
TEST_F(EventJournalTest, OnlyADeadOwnersJournalIsAdoptedWithWhatItHeld) {
  auto journal = create();
  ASSERT_TRUE(journal);
  const auto path = journal->path();
  EXPECT_EQ(EventJournal::listFor(dir.path(), owner, {}), std::vector{path});
  EXPECT_TRUE(EventJournal::listFor(dir.path(), owner, path).empty());
  EXPECT_TRUE(EventJournal::listFor(dir.path(), owner + "2", {}).empty());
  for (int i = 0; i < 3; ++i) journal->append(recordText(0, i));
  std::uint64_t end = 0;
  auto records = journal->published(end);
  ASSERT_EQ(records.size(), 3u);
  journal->release(end);
  for (int i = 3; i < 6; ++i) journal->append(recordText(0, i));
  records = journal->published(end);
  ASSERT_EQ(records.size(), 3u);
  journal->setCurrentBatch(17);
  journal->beginDrain({records.back().end, 17, 1234});
  EXPECT_EQ(EventJournal::currentBatchOf(path, owner), 17u) << "read while its owner lives";
  EXPECT_EQ(EventJournal::currentBatchOf(path, owner + "2"), std::nullopt);

  EXPECT_FALSE(EventJournal::adoptDead(path, owner)) << "its owner still holds it";
  journal.reset();  // the owner is gone, the file stays
  EXPECT_FALSE(EventJournal::adoptDead(path, owner + "2")) << "another directory's";
  auto adopted = EventJournal::adoptDead(path, owner);
  ASSERT_TRUE(adopted);
  EXPECT_FALSE(EventJournal::adoptDead(path, owner)) << "adopted twice";
  const auto drain = adopted->unfinishedDrain();
  ASSERT_TRUE(drain);
  EXPECT_EQ(drain->batch, 17u);
  EXPECT_EQ(drain->offset, 1234u);
  EXPECT_EQ(adopted->recoverable(),
            (std::vector{recordText(0, 3), recordText(0, 4), recordText(0, 5)}));
  adopted->release(drain->end);
  EXPECT_FALSE(adopted->unfinishedDrain());
  adopted->remove();
  adopted.reset();
  EXPECT_TRUE(EventJournal::listFor(dir.path(), owner, {}).empty());
}

// A process killed at a random instant while threads append: every record whose append returned
// is recovered whole, exactly once; ones cut off mid-copy are passed over.
TEST_F(EventJournalTest, AKillAtAnyInstantLosesNoAcknowledgedRecord) {
  std::mt19937 random(20261125);
  for (int trial = 0; trial < 12; ++trial) {
    SCOPED_TRACE(trial);
    int acks[2];
    ASSERT_EQ(::pipe(acks), 0);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      ::close(acks[0]);
      auto journal = create(16 << 20);  // room for everything: no drainer
      if (!journal) ::_exit(2);
      std::vector<std::thread> threads;
      for (int t = 0; t < 3; ++t) {
        threads.emplace_back([&, t] {
          for (int i = 0;; ++i) {
            journal->append(recordText(t, i));
            const std::string ack = std::to_string(t) + " " + std::to_string(i) + "\n";
            if (::write(acks[1], ack.data(), ack.size()) < 0) ::_exit(3);
          }
        });
      }
      for (auto& thread : threads) thread.join();
      ::_exit(0);
    }
    ::close(acks[1]);
    // The kill lands at a random instant once records are flowing (a slow start under a
    // sanitizer must not end the trial before its first record).
    std::string acked;
    char buffer[65536];
    if (const ssize_t n = ::read(acks[0], buffer, sizeof buffer); n > 0) acked.append(buffer, n);
    std::this_thread::sleep_for(std::chrono::milliseconds(1 + random() % 40));
    ::kill(child, SIGKILL);
    for (ssize_t n; (n = ::read(acks[0], buffer, sizeof buffer)) > 0;) acked.append(buffer, n);
    ::close(acks[0]);
    int status = 0;
    ::waitpid(child, &status, 0);
    ASSERT_TRUE(WIFSIGNALED(status)) << "the child ended by itself: " << status;

    const auto files = EventJournal::listFor(dir.path(), owner, {});
    ASSERT_EQ(files.size(), 1u);
    auto adopted = EventJournal::adoptDead(files[0], owner);
    ASSERT_TRUE(adopted);
    std::set<std::pair<int, int>> found;
    for (const std::string& text : adopted->recoverable()) {
      const int thread = std::stoi(text);
      const int i = std::stoi(text.substr(text.find(':') + 1));
      ASSERT_EQ(text, recordText(thread, i));
      ASSERT_TRUE(found.insert({thread, i}).second) << "twice: " << text;
    }
    std::size_t checked = 0;
    for (std::size_t at = 0, nl; (nl = acked.find('\n', at)) != std::string::npos; at = nl + 1) {
      const std::string line = acked.substr(at, nl - at);
      const int thread = std::stoi(line);
      const int i = std::stoi(line.substr(line.find(' ') + 1));
      ASSERT_TRUE(found.count({thread, i})) << "acknowledged, not recovered: " << line;
      ++checked;
    }
    EXPECT_GT(checked, 0u);
    adopted->remove();
  }
}

}  // namespace
}  // namespace pelora::detail
