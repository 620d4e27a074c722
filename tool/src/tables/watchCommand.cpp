// korvo watch: a table's changes as they come; on a terminal, the table itself.

#include "../reading.h"
#include "changeText.h"
#include "engines.h"
#include "follower.h"
#include "screen.h"

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <unordered_map>

namespace korvotool {
namespace {

using Korvo::LearnedChanges;
using Korvo::oid_t;
using Korvo::TableState;

const char* wordOf(TableState state) {
  switch (state) {
    case TableState::loading:
      return "loading";
    case TableState::current:
      return "current";
    case TableState::stale:
      return "stale";
    default:
      return "refused";
  }
}

/// A line for each change.
class ChangeLog final : public Follower::User {
 public:
  ChangeLog(Work& work, const WatchOptions& options) : work_(work), options_(options) {}

  void begins() override { isFirst_ = true; }

  void changes(std::size_t, LearnedChanges& changes) override {
    const bool isShown = !(changes.first() && options_.changesOnly);
    while (changes.next()) {
      if (!isShown || isOver()) continue;
      ++count_;
      if (options_.json) {
        Json json = Json::object();
        addChange(json, changes);
        out_ << json.text() << "\n";
      } else {
        out_ << changeLine(changes) << "\n";
      }
    }
    out_.flush();
    if (isOver()) work_.done();
  }

  void state(std::size_t, TableState state, const std::string& text) override {
    if (options_.json) {
      Json json = Json::object();
      json.add("state", wordOf(state));
      if (!text.empty()) json.add("text", text);
      out_ << json.text() << "\n";
      out_.flush();
    } else if (state != TableState::loading && !(isFirst_ && state == TableState::current)) {
      complain(printable(options_.table) + " is " + wordOf(state) +
               (text.empty() ? "" : ": " + printable(text)));
    }
    if (state == TableState::current) isFirst_ = false;
  }

 private:
  bool isOver() const { return options_.limit != 0 && count_ >= options_.limit; }

  Work& work_;
  const WatchOptions& options_;
  Output out_;
  std::uint64_t count_ = 0;
  bool isFirst_ = true;
};

/// The table itself. It is drawn at most so often.
constexpr std::chrono::milliseconds drawPause{100};
/// Rows that changed are marked that long.
constexpr std::chrono::milliseconds markTime{1500};

class LiveTable final : public Follower::User {
 public:
  LiveTable(Work& work, const WatchOptions& options, std::string publisher)
      : publisher_(std::move(publisher)),
        style_(options.colour, true),
        screen_(out_),
        ticks_(work, [this] { tick(); }) {
    ticks_.after(std::chrono::seconds(0));
  }

  void followerIs(const Follower& follower) { follower_ = &follower; }

  void begins() override {
    changed_.clear();
    isDirty_ = true;
  }
  void changes(std::size_t, LearnedChanges& changes) override {
    const bool isFirst = changes.first();
    const Clock::time_point now = Clock::now();
    while (changes.next()) {
      if (!isFirst) ++count_;
      if (!isFirst && changes.kind() != Korvo::ChangeKind::removed) changed_[changes.oid()] = now;
    }
    isDirty_ = true;
  }
  void state(std::size_t, TableState state, const std::string& text) override {
    state_ = wordOf(state);
    if (!text.empty()) state_ += ": " + printable(text);
    isCurrent_ = state == TableState::current;
    isDirty_ = true;
  }

 private:
  using Clock = std::chrono::steady_clock;

  void tick() {
    ticks_.after(drawPause);
    const Clock::time_point now = Clock::now();
    const auto faded =
        std::erase_if(changed_, [&](const auto& entry) { return now - entry.second > markTime; });
    const Screen::Size size = Screen::size();
    if (!isDirty_ && faded == 0 && size == size_) return;
    isDirty_ = false;
    size_ = size;
    screen_.draw(lines());
  }

  std::vector<std::string> lines() const {
    const Korvo::LearnedTable& table = follower_->table(0);
    const auto fitting = [&](const std::string& text) {
      return std::string(cut(text, size_.columns));
    };
    std::vector<std::string> lines;
    const std::string title = printable(table.name()) + " of " + printable(publisher_) + ": " +
                              counted(table.size(), "row") + ", " + counted(count_, "change") +
                              ", ";
    const std::string state =
        fitting(title + state_).substr(std::min(title.size(), fitting(title).size()));
    lines.push_back(style_.bold(fitting(title)) +
                    (isCurrent_ ? style_.green(state) : style_.red(state)));
    lines.emplace_back();
    // Title, empty line, names of columns, and what is left out.
    constexpr std::size_t others = 4;
    const std::size_t room = size_.lines > others ? size_.lines - others : 1;
    const std::vector<oid_t> oids = table.oids(room);
    Grid grid = gridFor(table.layout());
    for (const oid_t oid : oids) grid.line(gridLine(table.find(oid)));
    const std::vector<std::string> rows = grid.lines();
    lines.push_back(style_.faint(fitting(rows.front())));
    for (std::size_t i = 0; i < oids.size(); ++i) {
      const std::string line = fitting(rows[i + 1]);
      lines.push_back(changed_.contains(oids[i]) ? style_.yellow(line) : line);
    }
    if (oids.size() < table.size()) {
      lines.push_back(style_.faint(fitting(counted(table.size() - oids.size(), "more row"))));
    }
    return lines;
  }

  std::string publisher_;
  Style style_;
  Output out_;
  Screen screen_;
  Alarm ticks_;
  const Follower* follower_ = nullptr;
  Screen::Size size_;
  std::unordered_map<oid_t, Clock::time_point> changed_;
  std::uint64_t count_ = 0;
  std::string state_ = "loading";
  bool isCurrent_ = false;
  bool isDirty_ = true;
};

bool isDrawn(const WatchOptions& options) {
  const char* const terminal = std::getenv("TERM");  // NOLINT(concurrency-mt-unsafe): one thread
  return !options.json && !options.lines && options.limit == 0 && !options.changesOnly &&
         Output().isTerminal() && terminal != nullptr && std::string_view(terminal) != "dumb";
}

}  // namespace

int watchTable(const WatchOptions& options) {
  makeKnown(options.address);
  Work work;
  const Korvo::PublisherInfo info = askPublisher(work, options);
  const auto tables = tablesOf(info, {options.table});
  if (isDrawn(options)) {
    LiveTable live(work, options, info.name);
    Follower follower(work, options.address, live);
    live.followerIs(follower);
    follower.follow(tables);
    work.run();
  } else {
    ChangeLog log(work, options);
    Follower follower(work, options.address, log);
    follower.follow(tables);
    work.run();
  }
  return statusGood;
}

}  // namespace korvotool
