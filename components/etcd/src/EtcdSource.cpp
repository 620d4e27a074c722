#include "EtcdSource.h"

#include <Korvo/AnyRow.h>

#include <algorithm>
#include <deque>
#include <map>
#include <utility>
#include <vector>

namespace Korvo::detail {

namespace {

constexpr int heartbeatsOfSilence = 3;

}  // namespace

/// One connection.
class EtcdLink final : public TableLink, private TableReceiver::User {
  /// What the client tells may come when the link is gone.
  template <typename Work>
  auto ifAlive(Work work) {
    return [alive = std::weak_ptr<EtcdLink*>(self_), work = std::move(work)](auto&&... arguments) {
      if (!alive.expired()) work(arguments...);
    };
  }

 public:
  EtcdLink(std::shared_ptr<EtcdSource> source, TableReceiver& receiver, TableLink::User& user)
      : source_(std::move(source)), receiver_(receiver), user_(user) {
    receiver_.begin(*this);
    source_->client_.begin(ifAlive([this](const EtcdFault& fault) {
      if (fault) return lose(fault);
      look();
    }));
  }
  EtcdLink(const EtcdLink&) = delete;
  EtcdLink& operator=(const EtcdLink&) = delete;

  std::optional<std::string> work() override {
    try {
      while (!over_ && !todo_.empty()) {
        if (user_.linkShouldYield()) {
          user_.linkHasWork();
          break;
        }
        const std::function<void()> next = std::move(todo_.front());
        todo_.pop_front();
        next();
      }
    } catch (const TableFault& fault) {
      receiver_.fault(fault.what());
      over_ = fault.what();
    }
    return over_;
  }

  std::optional<std::string> timePasses(milliseconds time) override {
    if (!todo_.empty()) return over_;  // there is something that was not looked at yet
    silence_ += time;
    idle_ += time;
    if (silence_ >= heartbeatsOfSilence * source_->heartbeat_) {
      end("nothing was received from " + source_->client_.member() + " for " +
          std::to_string(silence_.count() / 1000) + " seconds");
    } else if (watch_ != nullptr && idle_ >= source_->heartbeat_) {
      idle_ = milliseconds(0);
      etcd::WatchRequest request;
      request.mutable_progress_request();
      watch_->send(request);
    }
    return over_;
  }

  void tablesChange() override { end("another table is subscribed"); }

 private:
  using Fault = EtcdFault;

  void rowIsRefused(std::uint16_t, oid_t, const std::string&) override {}
  void tableIsRefused(std::uint16_t, const std::string&) override {}

  /// Work for the subscriber's turn.
  void later(std::function<void()> work) {
    silence_ = milliseconds(0);
    todo_.push_back(std::move(work));
    user_.linkHasWork();
  }
  /// To be called when the receiver may be told: in work() only.
  void end(const std::string& reason) {
    if (!over_) over_ = reason;
  }
  void lose(const Fault& fault) {
    later([this, text = source_->client_.member() + ": " + fault.text] { end(text); });
  }

  // --- What is there

  /// Mark and owner, at one revision.
  void look() {
    etcd::TxnRequest request;
    request.add_success()->mutable_request_range()->set_key(source_->keys_.mark());
    request.add_success()->mutable_request_range()->set_key(source_->keys_.owner());
    source_->client_.transact(
        request, ifAlive([this](const Fault& fault, etcd::TxnResponse& response) {
          if (fault) return lose(fault);
          if (response.responses_size() != 2) return lose({Fault::Kind::other, "half an answer"});
          later([this, answer = std::make_shared<etcd::TxnResponse>(std::move(response))] {
            looked(*answer);
          });
        }));
  }

  void looked(const etcd::TxnResponse& response) {
    cluster_ = response.header().cluster_id();
    head_ = response.header().revision();
    const auto& marks = response.responses(0).response_range().kvs();
    const auto& owners = response.responses(1).response_range().kvs();
    owner_ = owners.empty() ? 0 : owners[0].create_revision();
    ownerText_ = owners.empty() ? "" : owners[0].value();
    if (marks.empty()) return waitForMark();
    const std::optional<EtcdMark> mark = EtcdMark::decode(marks[0].value());
    if (!mark) return end("the mark of " + source_->address_.publisher + " has another form");
    if (isOfThePast(*mark, marks[0].mod_revision())) {
      if (std::exchange(source_->isPastTold_, true)) return waitForMark();
      return end("the cluster has an older state of " + source_->address_.publisher +
                 " than is known here: what its publisher writes is waited for");
    }

    const bool mayResume = isAtPosition() && mark->history == source_->position_->mark.history &&
                           source_->position_->revision <= head_;
    if (mayResume && marks[0].value() == source_->position_->text) {
      // Nothing was written since.
      revision_ = head_;
      markRevision_ = marks[0].mod_revision();
      take(*mark, marks[0].value());
      return readLayouts(false);
    }
    if (mayResume) return verifyPosition();
    readWhole(marks[0], *mark);
  }

  /// Of a cluster that was restored from a copy. Nobody is led back by it: a publisher that lives
  /// notices it, too, and begins another history. One that comes after it leads on from what is
  /// there, and is followed as soon as it has written something.
  bool isOfThePast(const EtcdMark& mark, std::int64_t revision) const {
    const EtcdSource::Shown& shown = source_->shown_;
    if (!hasPosition() || mark.history != shown.history || mark.sequence >= shown.sequence) {
      return false;
    }
    const bool isOfAnother = owner_ != 0 && revision > owner_ && ownerText_ != shown.owner;
    return !isOfAnother;
  }

  bool isAtPosition() const {
    if (!source_->position_ || source_->position_->cluster != cluster_) return false;
    const EtcdMark& mark = source_->position_->mark;
    for (std::size_t i = 0; i < receiver_.size(); ++i) {
      if (receiver_.table(i) == nullptr) continue;
      const TablePosition position = receiver_.position(i);
      if (position.history == mark.history && position.sequence == mark.sequence) continue;
      if (source_->refused_.contains(receiver_.table(i)->name())) continue;
      if (mark.find(receiver_.table(i)->name()) != nullptr) return false;
    }
    return true;
  }

  bool hasPosition() const {
    for (std::size_t i = 0; i < receiver_.size(); ++i) {
      if (receiver_.position(i).history != 0) return true;
    }
    return false;
  }

  /// A cluster that was restored from a copy may have had other states at the same revisions.
  void verifyPosition() {
    etcd::RangeRequest request;
    request.set_key(source_->keys_.mark());
    request.set_revision(source_->position_->revision);
    source_->client_.range(
        request, ifAlive([this](const Fault& fault, etcd::RangeResponse& response) {
          if (fault && fault.kind == Fault::Kind::unavailable) return lose(fault);
          const bool isOurs = !fault && response.kvs_size() == 1 &&
                              response.kvs(0).value() == source_->position_->text;
          later([this, isOurs] {
            if (!isOurs) {
              source_->position_.reset();
              return look();
            }
            revision_ = source_->position_->revision;
            markRevision_ = 0;  // the state is not the present one
            take(source_->position_->mark, source_->position_->text);
            readLayouts(false);
          });
        }));
  }

  /// All rows as of the last state.
  void readWhole(const etcd::KeyValue& kv, const EtcdMark& mark) {
    source_->position_.reset();
    if (mark.part == 0) {
      revision_ = head_;
      markRevision_ = kv.mod_revision();
      take(mark, kv.value());
      return readLayouts(true);
    }
    // A batch is under way. Who has rows keeps them until it is whole.
    if (mark.cut == 0 || hasPosition()) return waitForMark();
    etcd::RangeRequest request;
    request.set_key(source_->keys_.mark());
    request.set_revision(mark.cut);
    source_->client_.range(
        request, ifAlive([this, cut = mark.cut](const Fault& fault, etcd::RangeResponse& response) {
          if (fault && fault.kind != Fault::Kind::compacted) return lose(fault);
          later([this, cut, isThere = !fault,
                 answer = std::make_shared<etcd::RangeResponse>(std::move(response))] {
            std::optional<EtcdMark> state;
            if (isThere && answer->kvs_size() == 1) {
              state = EtcdMark::decode(answer->kvs(0).value());
            }
            if (!state || state->part != 0) return waitForMark();
            revision_ = cut;
            markRevision_ = cut;
            take(*state, answer->kvs(0).value());
            readLayouts(true);
          });
        }));
  }

  void take(const EtcdMark& mark, const std::string& text) {
    mark_ = mark;
    text_ = text;
    receiver_.publisherIs(source_->address_.publisher, mark.history);
  }

  /// No state is there: until one comes there is nothing to read.
  void waitForMark() {
    startWatch(source_->keys_.mark(), "", head_ + 1, [this](const etcd::WatchResponse& response) {
      for (const std::string& text : response.events()) {
        const etcd::Event event = eventOf(text);
        if (event.type() != etcd::Event::PUT) continue;
        const std::optional<EtcdMark> mark = EtcdMark::decode(event.kv().value());
        if (!mark || mark->part != 0) continue;
        watch_.reset();
        return look();
      }
    });
  }

  void readLayouts(bool isWhole) {
    tables_.clear();
    layouts_.clear();
    isWhole_ = isWhole;
    if (isWhole) source_->refused_.clear();
    readLayout(0);
  }

  void readLayout(std::size_t number) {
    while (number < receiver_.size()) {
      const AnyTable* const table = receiver_.table(number);
      if (table != nullptr) {
        if (mark_.find(table->name()) != nullptr) break;
        receiver_.refuse(number, mark_.absence(source_->address_.publisher, table->name()));
      }
      ++number;
    }
    if (number >= receiver_.size()) return haveLayouts();
    etcd::RangeRequest request;
    request.set_key(source_->keys_.layout(receiver_.table(number)->name()));
    request.set_revision(revision_);
    source_->client_.range(
        request, ifAlive([this, number](const Fault& fault, etcd::RangeResponse& response) {
          if (fault && fault.kind != Fault::Kind::compacted) return lose(fault);
          later([this, number, isCompacted = static_cast<bool>(fault),
                 answer = std::make_shared<etcd::RangeResponse>(std::move(response))] {
            if (isCompacted) return end("the state was compacted while it was read");
            const AnyTable* const table = receiver_.table(number);
            if (table != nullptr) acceptLayout(number, *table, *answer);
            if (!over_) readLayout(number + 1);
          });
        }));
  }

  void acceptLayout(std::size_t number, const AnyTable& table, const etcd::RangeResponse& answer) {
    const std::string text = answer.kvs_size() == 1 ? answer.kvs(0).value() : "";
    layouts_[source_->keys_.layout(table.name())] = text;
    if (text.empty()) {
      source_->refused_.insert(table.name());
      return receiver_.refuse(number, table.name() + ": its layout is missing");
    }
    LayoutFingerprint layout;
    try {
      layout = DynamicLayout(text).fingerprint();
    } catch (const KoBaseException&) {
      // What is wrong with it is told by the receiver.
    }
    if (!receiver_.accept(number, layout, text)) {
      source_->refused_.insert(table.name());
      return;
    }
    if (source_->refused_.erase(table.name()) != 0) {
      // The position is not its own.
      source_->position_.reset();
      return end(table.name() + " is taken from now on");
    }
    tables_[table.name()] = static_cast<std::uint16_t>(number);
  }

  void haveLayouts() {
    if (isWhole_) {
      paged_ = tables_.begin();
      return readTable();
    }
    // The state that was taken before is still the present one.
    if (markRevision_ != 0 && isLive()) markIsTaken();
    if (!over_) follow();
  }

  // --- All rows

  void readTable() {
    if (paged_ == tables_.end()) return haveRows();
    receiver_.whole(paged_->second);
    page_.emplace(source_->keys_.rows(paged_->first), revision_);
    readPage();
  }

  void readPage() {
    source_->client_.range(
        page_->request(), ifAlive([this](const Fault& fault, etcd::RangeResponse& response) {
          if (fault && fault.kind != Fault::Kind::compacted) return lose(fault);
          if (fault) {
            return later([this] { end("the state was compacted while it was read"); });
          }
          later([this, answer = std::make_shared<etcd::RangeResponse>(std::move(response))] {
            const bool isLast = !page_->goOn(*answer);
            // The next page comes while this one is taken in, and no other one.
            if (!isLast) readPage();
            for (const etcd::KeyValue& kv : answer->kvs()) takeRow(paged_->second, kv);
            if (!isLast) return;
            ++paged_;
            readTable();
          });
        }));
  }

  void takeRow(std::uint16_t number, const etcd::KeyValue& kv) {
    const std::string& value = kv.value();
    const auto key = source_->keys_.rowOf(kv.key());
    const auto* const bytes = reinterpret_cast<const byte_t*>(value.data());
    if (!key) throw TableFault("a row under the key " + kv.key());
    if (value.size() >= rowHeaderLength && loadField<oid_t>(bytes + rowOidOffset) != key->oid) {
      throw TableFault("a row under the oid of another one");
    }
    receiver_.row(number, {bytes, value.size()});
  }

  void haveRows() {
    markIsTaken();
    if (over_) return;
    // Rows that nobody keeps up to date are shown, but not as current.
    if (!isLive()) return publisherIsGone();
    follow();
  }

  bool isLive() const { return owner_ != 0 && markRevision_ > owner_; }
  void publisherIsGone() {
    end(source_->address_.publisher +
        (owner_ == 0 ? " is not there" : " has not loaded its rows yet"));
  }

  // --- States

  /// What came leads to mark_, at revision_.
  void markIsTaken() {
    TableMark state;
    state.sequence = mark_.sequence;
    if (const auto& last = source_->position_;
        last && last->mark.history == mark_.history && mark_.batches > last->mark.batches) {
      state.merged = mark_.batches - last->mark.batches - 1;
    }
    for (const EtcdMark::Table& table : mark_.tables) {
      const auto known = tables_.find(table.name);
      if (known == tables_.end() || !receiver_.isTaken(known->second)) continue;
      state.tables.push_back({known->second, table.rows, table.digest});
    }
    const std::string difference = receiver_.mark(state);
    if (!difference.empty()) {
      source_->position_.reset();
      return end(difference);
    }
    hasMarked_ = true;
    EtcdSource::Shown& shown = source_->shown_;
    if (isLive()) {
      shown.owner = ownerText_;
    } else if (shown.history != mark_.history || shown.sequence != mark_.sequence) {
      shown.owner.clear();
    }
    shown.history = mark_.history;
    shown.sequence = mark_.sequence;
    source_->isPastTold_ = false;
    source_->position_ = EtcdSource::Position{cluster_, revision_, text_, mark_};
  }

  // --- What changes

  void follow() {
    seen_ = revision_;
    const std::string& all = source_->keys_.all();
    startWatch(all, EtcdKeys::endOf(all), revision_ + 1,
               [this](const etcd::WatchResponse& response) { takeEvents(response); });
  }

  void startWatch(const std::string& key, const std::string& end, std::int64_t revision,
                  std::function<void(const etcd::WatchResponse&)> told) {
    watch_ = source_->client_.watch(ifAlive([this, revision, told = std::move(told)](
                                                const Fault& fault, etcd::WatchResponse& response) {
      if (fault) return lose(fault);
      later([this, revision, told,
             answer = std::make_shared<etcd::WatchResponse>(std::move(response))]() mutable {
        if (answer->canceled()) return canceled(*answer);
        // It would be silent until it came to that revision, with another history.
        const etcd::ResponseHeader& header = answer->header();
        if (header.cluster_id() != cluster_ || header.revision() < revision - 1) {
          return this->end(source_->client_.member() + " is of another cluster than before");
        }
        told(*answer);
        // The next message may be as large: this one makes room for it.
        answer.reset();
        if (!over_ && watch_ != nullptr) watch_->next();
      });
    }));
    etcd::WatchRequest request;
    etcd::WatchCreateRequest& create = *request.mutable_create_request();
    create.set_key(key);
    create.set_range_end(end);
    create.set_start_revision(revision);
    create.set_progress_notify(true);
    create.set_fragment(true);
    watch_->send(request);
  }

  void canceled(const etcd::WatchResponse& response) {
    if (response.compact_revision() != 0) {
      // What changed since then is not known any more.
      source_->position_.reset();
      return end("the state was compacted before it was followed");
    }
    end(source_->client_.member() + ": " + response.cancel_reason());
  }

  static etcd::Event eventOf(const std::string& text) {
    etcd::Event event;
    if (!event.ParseFromString(text)) throw TableFault("an event of another form");
    return event;
  }

  void takeEvents(const etcd::WatchResponse& response) {
    const auto& events = response.events();
    // Of several states that come together only the last one is made.
    int last = events.size();
    while (last-- > 0) {
      const etcd::Event event = eventOf(events[last]);
      if (isNew(event) && isState(event)) break;
    }
    for (int i = 0; i < events.size() && !over_; ++i) {
      const etcd::Event event = eventOf(events[i]);
      if (isNew(event)) takeEvent(event, i == last);
    }
  }

  /// A server may repeat what it told before.
  bool isNew(const etcd::Event& event) const { return event.kv().mod_revision() >= seen_; }
  bool isState(const etcd::Event& event) const {
    if (event.type() != etcd::Event::PUT || event.kv().key() != source_->keys_.mark()) return false;
    const std::optional<EtcdMark> mark = EtcdMark::decode(event.kv().value());
    return mark && mark->part == 0;
  }

  void takeEvent(const etcd::Event& event, bool isLastState) {
    const etcd::KeyValue& kv = event.kv();
    const bool isPut = event.type() == etcd::Event::PUT;
    seen_ = kv.mod_revision();
    if (const auto key = source_->keys_.rowOf(kv.key())) {
      const auto table = tables_.find(key->table);
      if (table == tables_.end()) return;
      if (isPut) {
        takeRow(table->second, kv);
      } else {
        receiver_.remove(table->second, key->oid);
      }
    } else if (kv.key() == source_->keys_.owner()) {
      owner_ = isPut ? kv.create_revision() : 0;
      ownerText_ = kv.value();
      if (hasMarked_) publisherIsGone();
    } else if (kv.key() == source_->keys_.mark()) {
      if (!isPut) return end("the mark of " + source_->address_.publisher + " is gone");
      if (isLastState) takeState(kv);
    } else if (const auto layout = layouts_.find(kv.key()); layout != layouts_.end()) {
      if (isPut && kv.value() == layout->second) return;
      source_->position_.reset();
      end("a layout of " + source_->address_.publisher + " changed");
    }
  }

  void takeState(const etcd::KeyValue& kv) {
    const EtcdMark mark = *EtcdMark::decode(kv.value());
    if (mark.history != mark_.history) {
      source_->position_.reset();
      return end(source_->address_.publisher + " began another history");
    }
    for (std::size_t i = 0; i < receiver_.size(); ++i) {
      const AnyTable* const table = receiver_.table(i);
      if (table == nullptr) continue;
      const bool isThere = mark.find(table->name()) != nullptr;
      if (isThere != (mark_.find(table->name()) != nullptr)) {
        // From the position one would come to this state again.
        source_->position_.reset();
        return end(source_->address_.publisher + " has other tables");
      }
      if (isThere) continue;
      const std::string why = mark.absence(source_->address_.publisher, table->name());
      if (why != table->stateText()) receiver_.refuse(i, why);
    }
    mark_ = mark;
    text_ = kv.value();
    revision_ = kv.mod_revision();
    markRevision_ = revision_;
    // States of before the publisher that is there now came are passed on the way.
    markIsTaken();
  }

  const std::shared_ptr<EtcdSource> source_;
  TableReceiver& receiver_;
  TableLink::User& user_;
  const std::shared_ptr<EtcdLink*> self_ = std::make_shared<EtcdLink*>(this);
  std::deque<std::function<void()>> todo_;
  std::optional<std::string> over_;
  milliseconds silence_{0};
  milliseconds idle_{0};

  std::uint64_t cluster_ = 0;
  std::int64_t head_ = 0;   ///< the revision at which the link looked
  std::int64_t owner_ = 0;  ///< the owner's create revision; 0: there is none
  std::string ownerText_;
  std::int64_t revision_ = 0;      ///< of the state that is read or was taken last
  std::int64_t markRevision_ = 0;  ///< of its mark; 0: it is not the present one
  std::int64_t seen_ = 0;          ///< of the last event
  EtcdMark mark_;
  std::string text_;
  std::map<std::string, std::uint16_t, std::less<>> tables_;  ///< those that are taken
  std::map<std::string, std::string> layouts_;                ///< by their keys
  bool isWhole_ = false;
  bool hasMarked_ = false;

  std::map<std::string, std::uint16_t, std::less<>>::iterator paged_;
  std::optional<EtcdPage> page_;

  std::unique_ptr<EtcdClient::WatchStream> watch_;
};

EtcdSource::EtcdSource(const EtcdAddress& address, const EtcdSettings& settings,
                       const KoPtr<Scheduler>& scheduler, milliseconds heartbeat)
    : address_(address),
      keys_(address.prefix()),
      heartbeat_(heartbeat),
      client_(address, settings, scheduler) {}

std::unique_ptr<TableLink> EtcdSource::connect(TableReceiver& receiver, TableLink::User& user) {
  return std::make_unique<EtcdLink>(shared_from_this(), receiver, user);
}

}  // namespace Korvo::detail
