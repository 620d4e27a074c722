// korvo record: what a publisher tells, into a file.

#include "../reading.h"
#include "engines.h"
#include "follower.h"
#include "recording.h"

#include <chrono>

namespace korvotool {
namespace {

using Korvo::TableState;

class Recorder final : public Follower::User {
 public:
  Recorder(Work& work, const RecordOptions& options, RecordingWriter& writer)
      : work_(work), options_(options), writer_(writer) {}

  void followerIs(const Follower& follower) { follower_ = &follower; }

  void begins() override {
    seen_.assign(follower_->size(), std::nullopt);
    for (std::size_t i = 0; i < follower_->size(); ++i) {
      const Korvo::LearnedTable& table = follower_->table(i);
      writer_.table(static_cast<std::uint16_t>(i), table.name(), table.rowLayout().text());
    }
  }

  void changes(std::size_t number, Korvo::LearnedChanges& changes) override {
    const auto table = static_cast<std::uint16_t>(number);
    bool isWhole = false;
    while (changes.next()) {
      if (changes.first() && !std::exchange(isWhole, true)) writer_.whole(table);
      if (changes.kind() == Korvo::ChangeKind::removed) {
        writer_.removed(table, changes.oid());
      } else {
        writer_.row(table, changes.after());
      }
      ++records_;
    }
    if (changes.first() && !isWhole) writer_.whole(table);
    seen_[number] = changes.sequence();
    markIfWhole();
  }

  void state(std::size_t number, TableState state, const std::string& text) override {
    if (state == TableState::loading || state == TableState::current) return;
    complain(printable(follower_->table(number).name()) +
             (state == TableState::refused ? " is refused" : " is stale") +
             (text.empty() ? "" : ": " + printable(text)));
  }

  std::uint64_t batches() const { return batches_; }
  std::uint64_t records() const { return records_; }

 private:
  /// Readers have their turns one after the other: what they were told is a state of all tables
  /// once each knows its table as it stands.
  void markIfWhole() {
    for (std::size_t i = 0; i < seen_.size(); ++i) {
      if (seen_[i] != follower_->table(i).sequence()) return;
    }
    using std::chrono::microseconds;
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    writer_.mark(static_cast<std::uint64_t>(std::chrono::duration_cast<microseconds>(now).count()));
    if (++batches_ == options_.limit) work_.done();
  }

  Work& work_;
  const RecordOptions& options_;
  RecordingWriter& writer_;
  const Follower* follower_ = nullptr;
  std::vector<std::optional<std::uint64_t>> seen_;
  std::uint64_t batches_ = 0;
  std::uint64_t records_ = 0;
};

}  // namespace

int recordTables(const RecordOptions& options) {
  makeKnown(options.address);
  Work work;
  const Korvo::PublisherInfo info = askPublisher(work, options);
  const auto tables = tablesOf(info, options.tables);
  if (tables.empty()) throw Failure(statusUnavailable, printable(info.name) + " has no tables");
  RecordingWriter writer(options.output);
  writer.publisher(info.name);
  Recorder recorder(work, options, writer);
  Follower follower(work, options.address, recorder);
  recorder.followerIs(follower);
  follower.follow(tables);
  work.run();
  complain("recorded " + counted(recorder.records(), "change") + " in " +
           std::to_string(recorder.batches()) + (recorder.batches() == 1 ? " batch" : " batches"));
  return statusGood;
}

}  // namespace korvotool
