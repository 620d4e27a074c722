// korvo replay: a recording's tables, published again or printed.

#include "../reading.h"
#include "changeText.h"
#include "engines.h"
#include "follower.h"
#include "recording.h"

#include <Korvo/Batch.h>
#include <Korvo/TablePublisher.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <ctime>
#include <map>
#include <system_error>
#include <utility>

namespace korvotool {
namespace {

using Korvo::AnyRow;
using Korvo::LearnedTable;
using Korvo::oid_t;

/// The tables of a recording, as they are after the batches that were played.
class Player {
 public:
  class User {
   public:
    User() = default;
    User(const User&) = delete;
    User& operator=(const User&) = delete;
    virtual ~User() = default;

    virtual void tableComes(LearnedTable& table) = 0;
    virtual void tableGoes(LearnedTable& table) = 0;
  };
  Player(RecordingReader& reader, User& user) : reader_(reader), user_(user) {}

  /// One batch. Throws Failure for rows that are none.
  void play(const RecordedBatch& batch) {
    Korvo::AnyBatch changes;
    for (const RecordedBatch::Part& part : batch.parts) {
      if (part.kind == RecordedBatch::Kind::table) {
        // What its predecessor was told before counts no more.
        changes.commit();
        tableIs(part);
        continue;
      }
      LearnedTable& table = tableOf(part);
      switch (part.kind) {
        case RecordedBatch::Kind::whole:
          for (const oid_t oid : table.oids()) changes.remove(table, oid);
          break;
        case RecordedBatch::Kind::row:
          put(changes, table, part);
          break;
        default:
          changes.remove(table, part.oid);
      }
    }
    changes.commit();
  }

 private:
  [[noreturn]] void fail(const RecordedBatch::Part& part, const std::string& what) const {
    throw Failure(statusBadData,
                  reader_.path() + ": byte " + std::to_string(part.offset) + ": " + what);
  }

  LearnedTable& tableOf(const RecordedBatch::Part& part) {
    const auto found = tables_.find(part.number);
    if (found == tables_.end())
      fail(part, "no table has the number " + std::to_string(part.number));
    return *found->second;
  }

  void tableIs(const RecordedBatch::Part& part) {
    for (const auto& [number, table] : tables_) {
      if (number != part.number && table->name() == part.bytes) {
        fail(part, "two tables have the name " + printable(part.bytes));
      }
    }
    try {
      const Korvo::DynamicLayout layout(part.layoutText);
      auto& table = tables_[part.number];
      if (table != nullptr) user_.tableGoes(*table);
      table = std::make_unique<LearnedTable>(part.bytes, layout);
      user_.tableComes(*table);
    } catch (const Korvo::KoTextError& e) {
      fail(part, std::string("the layout: ") + e.what());
    } catch (const Korvo::KoInvalidArgument& e) {
      fail(part, e.what());
    }
  }

  void put(Korvo::AnyBatch& changes, LearnedTable& table, const RecordedBatch::Part& part) {
    AnyRow row(table.rowLayout());
    try {
      row.adopt(part.bytes.data(), part.bytes.size());
      changes.put(table, row);
    } catch (const Korvo::KoBaseException& e) {
      fail(part, e.what());
    }
  }

  RecordingReader& reader_;
  User& user_;
  std::map<std::uint16_t, std::unique_ptr<LearnedTable>> tables_;
};

/// What there is of it was played all the same.
int statusOf(const RecordingReader& reader) {
  return reader.torn() == 0 ? statusGood : statusFound;
}

void complainOfTornEnd(const RecordingReader& reader) {
  if (reader.torn() == 0) return;
  complain(reader.path() + ": ends in the middle of a batch: the last " +
           counted(reader.torn(), "byte") + " do not count");
}

// ---------------------------------------------------------------------------------------------

std::string timeText(std::uint64_t microseconds) {
  constexpr std::uint64_t second = 1000000;
  const auto seconds = static_cast<std::time_t>(microseconds / second);
  std::tm parts{};
  gmtime_r(&seconds, &parts);
  char text[64];
  const std::size_t length = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &parts);
  std::string fraction = std::to_string(second + microseconds % second);
  fraction.front() = '.';
  return std::string(text, length) + fraction + 'Z';
}

/// Prints what a recording tells.
class Printer final : public Player::User {
 public:
  Printer(const ReplayOptions& options, Korvo::KoPtr<Korvo::Scheduler> scheduler)
      : options_(options), scheduler_(std::move(scheduler)) {}

  void timeIs(std::uint64_t time) { time_ = timeText(time); }

  void tableComes(LearnedTable& table) override {
    readers_[&table] = std::make_unique<Korvo::LearnedReader>(
        table, scheduler_,
        [this, name = table.name()](Korvo::LearnedChanges& changes) { print(name, changes); },
        Korvo::Before::kept);
  }
  void tableGoes(LearnedTable& table) override { readers_.erase(&table); }

  Output out;

 private:
  void print(const std::string& table, Korvo::LearnedChanges& changes) {
    while (changes.next()) {
      if (options_.json) {
        Json json = Json::object();
        json.add("time", time_).add("table", table);
        addChange(json, changes);
        out << json.text() << "\n";
      } else {
        out << time_ << "  " << printable(table) << "  " << changeLine(changes) << "\n";
      }
    }
  }

  const ReplayOptions& options_;
  Korvo::KoPtr<Korvo::Scheduler> scheduler_;
  std::string time_;
  std::map<LearnedTable*, std::unique_ptr<Korvo::LearnedReader>> readers_;
};

int printRecording(const ReplayOptions& options, RecordingReader& reader) {
  const auto scheduler = std::make_shared<Korvo::Scheduler>("korvo");
  Printer printer(options, scheduler);
  Player player(reader, printer);
  RecordedBatch batch;
  while (reader.next(batch)) {
    printer.timeIs(batch.time);
    player.play(batch);
    scheduler->run(0, 0.0, true);
  }
  printer.out.finish();
  complainOfTornEnd(reader);
  return statusOf(reader);
}

// ---------------------------------------------------------------------------------------------

/// Publishes what a recording tells, in its time.
class Replay final : private Player::User {
 public:
  Replay(Work& work, const ReplayOptions& options, RecordingReader& reader)
      : work_(work),
        options_(options),
        reader_(reader),
        player_(reader, *this),
        next_(work, [this] { goOn(); }),
        look_(work, [this] { lookAtTarget(); }) {}

  void begin() {
    hasNext_ = reader_.next(batch_);
    publisher_ = std::make_unique<Korvo::TablePublisher>(reader_.publisher(), work_.loop());
    if (hasNext_) {
      start_ = batch_.time;
      playNext();
    }
    publisher_->listen(options_.address);
    next_.after(std::chrono::seconds(0));
    look_.after(lookPause);
  }

 private:
  using Clock = std::chrono::steady_clock;
  /// How often a cluster is asked how it goes.
  static constexpr std::chrono::milliseconds lookPause{1000};

  void tableComes(LearnedTable& table) override { publisher_->add(table); }
  /// The publisher finds it gone.
  void tableGoes(LearnedTable&) override {}

  void playNext() {
    player_.play(batch_);
    ++batches_;
    hasNext_ = reader_.next(batch_);
    if (!hasNext_) complainOfTornEnd(reader_);
  }

  bool isWaiting() {
    if (!begun_ && publisher_->subscribers().size() >= options_.subscribers) begun_ = Clock::now();
    return !begun_;
  }

  std::chrono::nanoseconds untilNext() const {
    if (options_.asFastAsPossible || batch_.time <= start_) return std::chrono::nanoseconds(0);
    const double due = static_cast<double>(batch_.time - start_) / options_.speed;
    // Recordings may name any time; nobody waits longer than that.
    constexpr double longest = 1e15;
    const std::chrono::duration<double, std::micro> wait(std::min(due, longest));
    return std::chrono::duration_cast<std::chrono::nanoseconds>(wait) - (Clock::now() - *begun_);
  }

  void goOn() {
    constexpr std::chrono::milliseconds look{20};
    if (isWaiting()) return next_.after(look);
    if (hasNext_) {
      if (untilNext() <= std::chrono::nanoseconds(0)) playNext();
      if (hasNext_) return next_.after(std::max(untilNext(), std::chrono::nanoseconds(0)));
    }
    if (!isToldEnd_) {
      isToldEnd_ = true;
      if (!options_.ends) {
        complain("replayed " + std::to_string(batches_) + (batches_ == 1 ? " batch" : " batches") +
                 "; the tables stay until a signal comes");
      }
    }
    if (!options_.ends) return;
    for (const auto& subscriber : publisher_->subscribers()) {
      if (subscriber.lag != 0) return next_.after(look);
    }
    work_.done();
  }

  void lookAtTarget() {
    look_.after(lookPause);
    const std::string problem = problemAt(options_.address, *publisher_);
    if (std::exchange(problem_, problem) == problem) return;
    complain(options_.address + ": " + (problem.empty() ? "goes on" : printable(problem)));
  }

  Work& work_;
  const ReplayOptions& options_;
  RecordingReader& reader_;
  std::unique_ptr<Korvo::TablePublisher> publisher_;
  Player player_;  // its tables go before the publisher
  Alarm next_;
  Alarm look_;
  std::string problem_;
  RecordedBatch batch_;
  bool hasNext_ = false;
  bool isToldEnd_ = false;
  std::uint64_t start_ = 0;
  std::uint64_t batches_ = 0;
  std::optional<Clock::time_point> begun_;
};

}  // namespace

int replayTables(const ReplayOptions& options) {
  if (!(options.speed > 0) || !std::isfinite(options.speed)) {
    throw Failure(statusUsage, "--speed: a number above 0");
  }
  RecordingReader reader(options.file);
  if (options.address.empty()) return printRecording(options, reader);
  makeKnown(options.address);
  Work work;
  Replay replay(work, options, reader);
  try {
    replay.begin();
  } catch (const Korvo::KoInvalidArgument& e) {
    throw Failure(statusUsage, e.what());
  } catch (const std::system_error& e) {
    throw Failure(statusUnavailable, options.address + ": " + e.what());
  }
  work.run();
  return statusOf(reader);
}

}  // namespace korvotool
