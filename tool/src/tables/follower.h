#pragma once

// Being a subscriber without knowing layouts.

#include "../commands.h"
#include "../failure.h"

#include <Korvo/EventLoop.h>
#include <Korvo/LearnedTable.h>
#include <Korvo/TableBrowser.h>
#include <Korvo/TablePublisher.h>
#include <Korvo/TableSubscriber.h>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace korvotool {

/// An event loop that SIGINT and SIGTERM end.
class Work {
 public:
  Work();

  const std::shared_ptr<Korvo::EventLoop>& loop() { return loop_; }
  /// Until done() or failIs() was called, or a signal came: it is false then. Throws Failure if
  /// that is what failIs() was told.
  bool run();
  void done();
  /// Ends it with a failure.
  void failIs(Failure failure);
  /// Calls `work`, and what it throws ends the run.
  void guard(const std::function<void()>& work);

 private:
  std::shared_ptr<Korvo::EventLoop> loop_;
  bool isDone_ = false;
  std::exception_ptr failure_;
};

/// Calls something at a time.
class Alarm final : private Velto::Platform::TimeoutHandler {
 public:
  Alarm(Work& work, std::function<void()> told);
  void after(std::chrono::nanoseconds delay) { control_->timeoutIs(delay); }
  void cancel() { control_->cancel(); }

 private:
  void onTimeout() override;

  Work& work_;
  std::function<void()> told_;
  std::unique_ptr<Velto::Platform::TimerControl> control_;
};

/// Throws Failure for an address that is none.
void checkAddress(const std::string& address);

/// Why nothing is written on the cluster at that address; empty: it is, or it is a socket, where
/// who comes and goes is no fault.
std::string problemAt(const std::string& address, const Korvo::TablePublisher& publisher);

/// What the publisher has. Throws Failure if the address is none, or it does not tell.
Korvo::PublisherInfo askPublisher(Work& work, const PublisherOptions& options);

/// Its tables of these names, or all of them. Throws Failure if it does not have one.
std::vector<Korvo::PublisherInfo::Table> tablesOf(const Korvo::PublisherInfo& publisher,
                                                  const std::vector<std::string>& names);

/// Follows tables of a publisher. When one of them gets another layout, all begin anew.
class Follower {
 public:
  class User {
   public:
    User() = default;
    User(const User&) = delete;
    User& operator=(const User&) = delete;
    virtual ~User() = default;

    /// The tables have these layouts from now on; all rows of them come.
    virtual void begins() = 0;
    /// The layout of a table cannot be understood: throws, or the table is left out.
    virtual void notUnderstood(const std::string& name, const std::string& why);
    /// Pulls changes of a table.
    virtual void changes(std::size_t number, Korvo::LearnedChanges& changes) = 0;
    /// A table's state is another one; what was told of it before counts until then.
    virtual void state(std::size_t number, Korvo::TableState state, const std::string& text) = 0;
  };

  /// Throws Failure for an address that is none.
  Follower(Work& work, const std::string& address, User& user);

  /// Begins to follow these tables, but for those that the user leaves out. Throws what he throws.
  void follow(const std::vector<Korvo::PublisherInfo::Table>& tables);

  std::size_t size() const { return tables_.size(); }
  const Korvo::LearnedTable& table(std::size_t number) const { return *tables_[number]; }
  const std::vector<Korvo::PublisherInfo::Table>& leftOut() const { return leftOut_; }

 private:
  void learn(const Korvo::PublisherInfo& info);

  Work& work_;
  std::string address_;
  User& user_;
  std::vector<Korvo::LayoutFingerprint> fingerprints_;
  std::vector<Korvo::PublisherInfo::Table> leftOut_;
  std::vector<std::unique_ptr<Korvo::LearnedTable>> tables_;
  std::unique_ptr<Korvo::TableSubscriber> subscriber_;
  std::vector<std::unique_ptr<Korvo::LearnedReader>> readers_;
  Korvo::TableBrowser browser_;
  Alarm again_;
};

}  // namespace korvotool
