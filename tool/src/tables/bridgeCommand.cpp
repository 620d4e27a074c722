// korvo bridge: what is published at one address, published at another one.

#include <Korvo/Batch.h>
#include <Korvo/TablePublisher.h>

#include <algorithm>
#include <set>
#include <system_error>
#include <utility>

#include "../reading.h"
#include "engines.h"
#include "follower.h"

namespace korvotool {
namespace {

using Korvo::LearnedTable;
using Korvo::oid_t;
using Korvo::PublisherInfo;
using Korvo::TableState;

/// How often the source is asked what tables it has, and the target how it goes.
constexpr std::chrono::seconds askPause{1};
constexpr std::chrono::milliseconds lookPause{200};

/// Rows go from the tables of the follower into tables of the publisher, which share their bytes.
///
/// A publisher that is complete says that its rows are those of the source. So there is a complete
/// one only while the source's tables are current; when they are not, it ends, and another one,
/// which is not complete, keeps its place: subscribers keep their rows, stale, and what is in a
/// cluster stays there.
class Bridge final : public Follower::User {
 public:
  Bridge(Work& work, const BridgeOptions& options)
      : work_(work),
        options_(options),
        browser_(options.address, work.loop(),
                 {.patience = std::chrono::seconds(options.patience)}),
        ask_(work, [this] { browser_.ask(); }),
        look_(work, [this] { lookAtTarget(); }) {
    browser_.onAnswer([this](const PublisherInfo& info) {
      ask_.after(askPause);
      work_.guard([&] { learn(info); });
    });
    browser_.onFailure([this](const std::string& text) {
      ask_.after(askPause);
      work_.guard([&] { waitFor(options_.address + ": " + text); });
    });
    browser_.ask();
  }

  void begins() override {
    publisher_.reset();
    batch_.clear();
    std::vector<std::unique_ptr<LearnedTable>> former = std::exchange(tables_, {});
    for (std::size_t i = 0; i < follower_->size(); ++i) {
      const LearnedTable& source = follower_->table(i);
      const auto same = std::ranges::find_if(former, [&](const auto& table) {
        return table != nullptr && table->name() == source.name() &&
               table->rowLayout().fingerprint() == source.rowLayout().fingerprint();
      });
      tables_.push_back(same != former.end()
                            ? std::move(*same)
                            : std::make_unique<LearnedTable>(source.name(), source.rowLayout()));
    }
    seen_.assign(tables_.size(), std::nullopt);
    states_.assign(tables_.size(), TableState::loading);
    isCurrent_ = false;
    publishAnew();
  }

  /// The others go on.
  void notUnderstood(const std::string& name, const std::string& why) override {
    report("refused", name + " is left out: its layout: " + why);
  }

  void changes(std::size_t number, Korvo::LearnedChanges& changes) override {
    LearnedTable& table = *tables_[number];
    std::set<oid_t> gone;
    if (changes.first()) {
      const std::vector<oid_t> oids = table.oids();
      gone.insert(oids.begin(), oids.end());
    }
    while (changes.next()) {
      if (changes.kind() == Korvo::ChangeKind::removed) {
        batch_.remove(table, changes.oid());
      } else {
        batch_.put(table, changes.after());
        gone.erase(changes.oid());
      }
      ++count_;
    }
    for (const oid_t oid : gone) batch_.remove(table, oid);
    seen_[number] = changes.sequence();
    isOpen_ = true;
    update();
  }

  void state(std::size_t number, TableState state, const std::string& text) override {
    states_[number] = state;
    if (state == TableState::stale || state == TableState::refused) {
      text_ = tables_[number]->name() +
              (state == TableState::stale ? " is stale: " : " is refused: ") + text;
    }
    update();
  }

  void finish() {
    publisher_.reset();
    if (options_.json) {
      Json json = Json::object();
      json.add("changes", count_).add("batches", batches_);
      print(json);
    } else if (!options_.quiet) {
      complain("bridged " + counted(count_, "change") + " in " + std::to_string(batches_) +
               (batches_ == 1 ? " batch" : " batches"));
    }
    out_.finish();
  }

 private:
  void publishAnew() {
    publisher_.reset();
    Korvo::PublisherOptions options;
    for (const auto& table : follower_->leftOut()) options.keptTables.push_back(table.name);
    publisher_ = std::make_unique<Korvo::TablePublisher>(name_, work_.loop(), options);
    publisher_->completeIs(false);
    for (const auto& table : tables_) publisher_->add(*table);
    publisher_->listen(options_.target);
    look_.after(lookPause);
  }

  /// Readers have their turns one after the other: what they were told is a state of all tables
  /// once each knows its table as it stands.
  bool isWhole() const {
    for (std::size_t i = 0; i < seen_.size(); ++i) {
      if (seen_[i] != follower_->table(i).sequence()) return false;
    }
    return true;
  }

  void update() {
    if (!isWhole()) return;
    if (std::exchange(isOpen_, false)) {
      batch_.commit();
      ++batches_;
    }
    const bool isCurrent =
        std::ranges::all_of(states_, [](TableState state) { return state == TableState::current; });
    if (std::exchange(isCurrent_, isCurrent) == isCurrent) return tellFault();
    if (isCurrent) {
      ask_.after(std::chrono::seconds(0));
    } else {
      publishAnew();
      tellFault();
    }
  }

  /// The tables are current, and the source has no others.
  void complete() {
    publisher_->completeIs(true);
    waitedFor_.clear();
    std::size_t rows = 0;
    for (const auto& table : tables_) rows += table->size();
    text_.clear();
    if (options_.json) {
      Json json = Json::object();
      json.add("state", "current").add("tables", tables_.size()).add("rows", rows);
      print(json);
    } else if (!options_.quiet) {
      complain(printable(name_) + " is current: " + counted(tables_.size(), "table") + ", " +
               counted(rows, "row"));
    }
  }

  /// Why the source's tables are not current, if that was not told before.
  void tellFault() {
    if (isCurrent_ || text_.empty()) return;
    report("stale", std::exchange(text_, {}));
  }

  void report(const char* state, const std::string& text) {
    if (options_.json) {
      Json json = Json::object();
      json.add("state", state).add("text", text);
      print(json);
    } else if (!options_.quiet) {
      complain(printable(text));
    }
  }

  void lookAtTarget() {
    look_.after(lookPause);
    const std::string problem = problemAt(options_.target, *publisher_);
    if (std::exchange(problem_, problem) == problem) return;
    if (options_.json) {
      Json json = Json::object();
      json.add("problem", problem);
      print(json);
    } else if (!options_.quiet) {
      complain(options_.target + ": " + (problem.empty() ? "goes on" : printable(problem)));
    }
  }

  /// Tells it once. While the tables are not current, the follower tells why.
  void waitFor(const std::string& what) {
    if (follower_ != nullptr && (!isCurrent_ || publisher_->complete())) return;
    if (std::exchange(waitedFor_, what) != what) report("loading", what + "; it is waited for");
  }

  /// Begins as soon as all tables are there that are wanted. Later the source may have others than
  /// it had; while it loads its rows it may not have all of them.
  void learn(const PublisherInfo& info) {
    std::vector<PublisherInfo::Table> tables;
    try {
      tables = tablesOf(info, options_.tables);
      if (tables.empty()) throw Failure(statusUnavailable, info.name + " has no tables");
    } catch (const Failure& missing) {
      return waitFor(missing.what());
    }
    if (follower_ == nullptr) {
      name_ = info.name;
      follower_ = std::make_unique<Follower>(work_, options_.address, *this);
      follower_->follow(tables);
    } else if (info.isComplete && !isFollowed(tables)) {
      follower_->follow(tables);
    } else if (info.isComplete && isCurrent_ && !publisher_->complete()) {
      complete();
    }
  }

  /// Whether these are the tables that are followed or left out, and no others.
  bool isFollowed(const std::vector<PublisherInfo::Table>& tables) const {
    const auto& leftOut = follower_->leftOut();
    const auto isKnown = [&](const PublisherInfo::Table& told) {
      return std::ranges::any_of(tables_,
                                 [&](const auto& table) { return table->name() == told.name; }) ||
             std::ranges::any_of(leftOut, [&](const auto& table) {
               return table.name == told.name && table.layoutText == told.layoutText;
             });
    };
    return tables.size() == tables_.size() + leftOut.size() && std::ranges::all_of(tables, isKnown);
  }

  void print(const Json& json) {
    out_ << json.text() << "\n";
    out_.flush();
  }

  Work& work_;
  const BridgeOptions& options_;
  std::string name_;
  Output out_;
  std::unique_ptr<Follower> follower_;  ///< null until the source has what is wanted
  std::vector<std::unique_ptr<LearnedTable>> tables_;
  std::unique_ptr<Korvo::TablePublisher> publisher_;  // ends before its tables
  Korvo::AnyBatch batch_;
  std::vector<std::optional<std::uint64_t>> seen_;
  std::vector<TableState> states_;
  bool isOpen_ = false;     ///< readers were told something since the last commit
  bool isCurrent_ = false;  ///< the source's tables, as far as they are followed
  std::string text_;        ///< what was not told yet
  std::string waitedFor_;
  std::string problem_;
  std::uint64_t count_ = 0;
  std::uint64_t batches_ = 0;
  Korvo::TableBrowser browser_;
  Alarm ask_;
  Alarm look_;
};

}  // namespace

int bridgeTables(const BridgeOptions& options) {
  if (options.address == options.target) {
    throw Failure(statusUsage, "a bridge leads from one address to another one");
  }
  makeKnown(options.address);
  makeKnown(options.target);
  Work work;
  checkAddress(options.address);
  checkAddress(options.target);
  Bridge bridge(work, options);
  try {
    work.run();
  } catch (const Korvo::KoInvalidArgument& e) {
    throw Failure(statusUsage, e.what());
  } catch (const std::system_error& e) {
    throw Failure(statusUnavailable, options.target + ": " + e.what());
  }
  bridge.finish();
  return statusGood;
}

}  // namespace korvotool
