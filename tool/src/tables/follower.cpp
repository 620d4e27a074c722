#include "follower.h"

#include "../failure.h"
#include "../output.h"

#include <Korvo/TableEngine.h>

#include <algorithm>
#include <csignal>
#include <exception>
#include <utility>

namespace korvotool {

using Korvo::PublisherInfo;
using Korvo::TableState;

Work::Work() : loop_(std::make_shared<Korvo::EventLoop>("korvo")) {
  loop_->stopOnSignals({SIGINT, SIGTERM});
}

bool Work::run() {
  if (std::exchange(isDone_, false)) loop_->activeIs(true);  // done() has stopped it
  loop_->run();
  if (failure_ != nullptr) std::rethrow_exception(std::exchange(failure_, nullptr));
  return isDone_;
}

void Work::done() {
  if (!std::exchange(isDone_, true)) loop_->stop();
}

void Work::failIs(Failure failure) {
  if (failure_ == nullptr) failure_ = std::make_exception_ptr(std::move(failure));
  done();
}

void Work::guard(const std::function<void()>& work) {
  try {
    work();
  } catch (...) {
    if (failure_ == nullptr) failure_ = std::current_exception();
    done();
  }
}

Alarm::Alarm(Work& work, std::function<void()> told)
    : work_(work), told_(std::move(told)), control_(work.loop()->getTimerControl(this)) {}

void Alarm::onTimeout() {
  work_.guard(told_);
}

void checkAddress(const std::string& address) {
  try {
    Korvo::TableEngine::checkAddress(address);
  } catch (const Korvo::KoInvalidArgument& e) {
    throw Failure(statusUsage, e.what());
  }
}

std::string problemAt(const std::string& address, const Korvo::TablePublisher& publisher) {
  std::string problem;
  if (address.starts_with("unix:")) return problem;
  for (const auto& subscriber : publisher.subscribers()) problem = subscriber.lastReason;
  return problem;
}

PublisherInfo askPublisher(Work& work, const PublisherOptions& options) {
  checkAddress(options.address);
  std::optional<PublisherInfo> answer;
  std::string failure = "interrupted";
  Korvo::TableBrowser browser(options.address, work.loop(),
                              {.patience = std::chrono::seconds(options.patience)});
  browser.onAnswer([&](const PublisherInfo& info) {
    answer = info;
    work.done();
  });
  browser.onFailure([&](const std::string& text) {
    failure = printable(text);
    work.done();
  });
  browser.ask();
  work.run();
  if (!answer) throw Failure(statusUnavailable, options.address + ": " + failure);
  return *answer;
}

std::vector<PublisherInfo::Table> tablesOf(const PublisherInfo& publisher,
                                           const std::vector<std::string>& names) {
  std::vector<PublisherInfo::Table> tables;
  for (const std::string& name : names) {
    const auto found = std::ranges::find(publisher.tables, name, &PublisherInfo::Table::name);
    if (found == publisher.tables.end()) {
      std::string has;
      for (const PublisherInfo::Table& table : publisher.tables) {
        has += (has.empty() ? " has " : ", ") + table.name;
      }
      throw Failure(statusUnavailable, "no table " + name + ": " + printable(publisher.name) +
                                           (has.empty() ? " has none" : printable(has)));
    }
    if (std::ranges::find(tables, name, &PublisherInfo::Table::name) == tables.end()) {
      tables.push_back(*found);
    }
  }
  if (names.empty()) tables = publisher.tables;
  return tables;
}

namespace {

/// Until the publisher is asked again for the layout of a table that it refused.
constexpr std::chrono::seconds pause{1};

}  // namespace

void Follower::User::notUnderstood(const std::string& name, const std::string& why) {
  throw Failure(statusBadData, "the layout of " + printable(name) + ": " + why);
}

Follower::Follower(Work& work, const std::string& address, User& user)
    : work_(work),
      address_(address),
      user_(user),
      browser_(address, work.loop()),
      again_(work, [this] { browser_.ask(); }) {
  browser_.onAnswer([this](const PublisherInfo& info) { work_.guard([&] { learn(info); }); });
  browser_.onFailure([this](const std::string&) { again_.after(pause); });
}

void Follower::follow(const std::vector<PublisherInfo::Table>& tables) {
  readers_.clear();
  subscriber_.reset();
  tables_.clear();
  fingerprints_.clear();
  leftOut_.clear();
  for (const PublisherInfo::Table& told : tables) {
    try {
      tables_.push_back(std::make_unique<Korvo::LearnedTable>(told));
    } catch (const Korvo::KoTextError& e) {
      user_.notUnderstood(told.name, e.what());
      leftOut_.push_back(told);
      continue;
    }
    fingerprints_.push_back(told.fingerprint);
  }
  subscriber_ = std::make_unique<Korvo::TableSubscriber>(
      address_, work_.loop(), Korvo::SubscriberOptions{.takesOtherLayouts = false});
  for (std::size_t i = 0; i < tables_.size(); ++i) {
    subscriber_->add(*tables_[i]);
    readers_.push_back(std::make_unique<Korvo::LearnedReader>(
        *tables_[i], work_.loop(),
        [this, i](Korvo::LearnedChanges& changes) {
          work_.guard([&] { user_.changes(i, changes); });
        },
        Korvo::Before::kept));
    readers_.back()->onState([this, i](TableState state, const std::string& text) {
      if (state == TableState::refused) again_.after(std::chrono::seconds(0));
      work_.guard([&] { user_.state(i, state, text); });
    });
  }
  user_.begins();
}

/// A table was refused, perhaps as its layout is another one now.
void Follower::learn(const PublisherInfo& info) {
  std::vector<PublisherInfo::Table> tables;
  bool isOther = false;
  bool isRefused = false;
  for (std::size_t i = 0; i < tables_.size(); ++i) {
    const auto found =
        std::ranges::find(info.tables, tables_[i]->name(), &PublisherInfo::Table::name);
    if (tables_[i]->state() == TableState::refused) isRefused = true;
    if (found == info.tables.end()) return again_.after(pause);
    if (found->fingerprint != fingerprints_[i]) isOther = true;
    tables.push_back(*found);
  }
  for (const PublisherInfo::Table& table : leftOut_) {
    const auto found = std::ranges::find(info.tables, table.name, &PublisherInfo::Table::name);
    if (found != info.tables.end()) tables.push_back(*found);
  }
  if (isOther) {
    follow(tables);
  } else if (isRefused) {
    again_.after(pause);
  }
}

}  // namespace korvotool
