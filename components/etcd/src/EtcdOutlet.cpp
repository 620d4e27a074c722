#include "EtcdOutlet.h"

#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <sstream>
#include <utility>

namespace Korvo::detail {

namespace {

/// Servers take requests of a mebibyte and a half unless they are told otherwise; a row and a mark
/// of full size have to fit beside what was counted.
constexpr std::size_t bytesOfTransaction = std::size_t{1} << 20;
constexpr std::size_t operationsOfServers = 128;
/// About what an operation takes beside key and value.
constexpr std::size_t operationBytes = 16;
constexpr milliseconds roundLimit{2000};
constexpr milliseconds goodbyeTime{500};

std::uint64_t randomNumber() {
  std::random_device random;
  std::uint64_t number = 0;
  while (number == 0) number = std::uint64_t{random()} << 32 | random();
  return number;
}

std::string hostName() {
  char name[256] = "";
  gethostname(name, sizeof name - 1);
  return name;
}

/// For people, and different for each publisher that ever was.
std::string describeOwner(const TableSender& sender) {
  std::ostringstream out;
  out << sender.name() << " on " << hostName() << ", process " << getpid() << ", " << std::hex
      << sender.epoch();
  return out.str();
}

std::uint64_t placeOf(std::uint16_t table, oid_t oid) {
  return std::uint64_t{table} << 32 | oid;
}

std::size_t rowLength(const KoPtr<KoRowBuf>& row) {
  return loadField<len_t>(row->buf_);
}

void addRange(google::protobuf::RepeatedPtrField<etcd::RequestOp>& operations,
              const std::string& key) {
  operations.Add()->mutable_request_range()->set_key(key);
}

}  // namespace

EtcdOutlet::EtcdOutlet(const EtcdAddress& address, const EtcdSettings& settings,
                       const KoPtr<Scheduler>& scheduler, const EtcdOptions& options,
                       std::vector<std::string> keptTables, TableSender& sender, User& user,
                       std::shared_ptr<EtcdCounters> counters)
    : address_(address),
      keys_(address.prefix()),
      options_(options),
      keptTables_(std::move(keptTables)),
      sender_(sender),
      user_(user),
      counters_(std::move(counters)),
      ownerText_(describeOwner(sender)),
      mostOperations_(options.mostOperations),
      mostBytes_(bytesOfTransaction),
      timer_(scheduler->getTimerControl(this)),
      client_(address, settings, scheduler) {
  timer_->timeoutIs(std::chrono::nanoseconds(0));
}

EtcdOutlet::~EtcdOutlet() {
  timer_->cancel();
  keepAlive_.reset();
  if (owner_ == 0 || stage_ == Stage::paused) return;
  try {
    etcd::LeaseRevokeRequest request;
    request.set_id(lease_);
    client_.revoke(request, [](const Fault&, etcd::LeaseRevokeResponse&) {});
    client_.finish(goodbyeTime);
  } catch (const std::bad_alloc&) {
    // The lease ends by itself.
  }
}

TableOutlet::Status EtcdOutlet::status() const {
  return {"etcd cluster of " + address_.members.front(), acked_, merged_, bytes_, problem_};
}

// ---------------------------------------------------------------------------------------------
// The name

void EtcdOutlet::pauseFor(std::chrono::nanoseconds time) {
  timer_->timeoutIs(time);
}

void EtcdOutlet::onTimeout() {
  if (stage_ == Stage::paused) return begin();
  user_.outletHasWork();
}

/// A conversation is over; what was under way is kept.
void EtcdOutlet::lose(const Fault& fault) {
  problem_ = client_.member() + ": " + fault.text;
  stage_ = Stage::paused;
  isSending_ = false;
  keepAlive_.reset();
  client_.cancel();
  if (fault.kind == Fault::Kind::denied) backoff_.slowDown();
  if (fault.kind == Fault::Kind::noLease) lease_ = 0;
  pauseFor(backoff_.next());
}

void EtcdOutlet::begin() {
  stage_ = Stage::asking;
  client_.begin([this](const Fault& fault) {
    if (fault) return lose(fault);
    claim();
  });
}

void EtcdOutlet::claim() {
  if (lease_ != 0) return askForName();
  etcd::LeaseGrantRequest request;
  request.set_ttl(options_.lease.count());
  client_.grant(request, [this](const Fault& fault, etcd::LeaseGrantResponse& response) {
    if (fault) return lose(fault);
    lease_ = response.id();
    askForName();
  });
}

void EtcdOutlet::askForName() {
  etcd::TxnRequest request;
  etcd::Compare& isFree = *request.add_compare();
  isFree.set_target(etcd::Compare::CREATE);
  isFree.set_key(keys_.owner());
  isFree.set_create_revision(0);
  etcd::PutRequest& put = *request.add_success()->mutable_request_put();
  put.set_key(keys_.owner());
  put.set_value(ownerText_);
  put.set_lease(lease_);
  addRange(*request.mutable_success(), keys_.mark());
  addRange(*request.mutable_failure(), keys_.owner());
  addRange(*request.mutable_failure(), keys_.mark());
  client_.transact(request, [this](const Fault& fault, etcd::TxnResponse& response) {
    if (fault) return lose(fault);
    haveName(response);
  });
}

void EtcdOutlet::haveName(const etcd::TxnResponse& response) {
  if (response.responses_size() != 2) return lose({Fault::Kind::other, "half an answer"});
  if (response.succeeded()) {
    owner_ = response.header().revision();
    // Subscribers wait for a word of the new owner, even if nothing changed.
    isMarkDue_ = true;
  } else {
    const auto& owners = response.responses(0).response_range().kvs();
    if (owners.empty() || owners[0].value() != ownerText_ || owners[0].lease() != lease_) {
      backoff_.keepUp();
      // This one ends by itself; who gets the name has one with all its time.
      lease_ = 0;
      lose({Fault::Kind::other,
            "another publisher has the name " + address_.publisher + ": " +
                (owners.empty() ? std::string("its lease just ended") : owners[0].value())});
      return;
    }
    // The answer to the claim may have been lost, and with it that it was new.
    isMarkDue_ = isMarkDue_ || owners[0].create_revision() != owner_;
    owner_ = owners[0].create_revision();
  }
  readRevision_ = response.header().revision();
  keepLease();
  judgeMark(response.responses(1).response_range());
}

void EtcdOutlet::keepLease() {
  leaseSilence_ = milliseconds(0);
  keepAlive_ = client_.keepAlive([this](const Fault& fault, etcd::LeaseKeepAliveResponse& answer) {
    if (fault) return lose(fault);
    if (answer.ttl() <= 0) return lose({Fault::Kind::noLease, "the lease of the name ended"});
    leaseSilence_ = milliseconds(0);
    keepAlive_->next();
  });
  // Who was without a conversation for a while has a lease that is about to end.
  askForLease();
}

void EtcdOutlet::askForLease() {
  leaseIdle_ = milliseconds(0);
  etcd::LeaseKeepAliveRequest request;
  request.set_id(lease_);
  keepAlive_->send(request);
}

/// Tells by the mark whether what is in the cluster is what was written from here.
void EtcdOutlet::judgeMark(const etcd::RangeResponse& response) {
  const bool isThere = response.kvs_size() == 1;
  const std::string text = isThere ? response.kvs(0).value() : "";
  problem_.clear();
  if (isKnown_ && !sentText_.empty() && text == sentText_) {
    // Its answer was lost, and it was made.
    ++counters_->recognised;
    stage_ = Stage::writing;
    adoptMark(response.kvs(0).mod_revision());
    return user_.outletHasWork();
  }
  if (isKnown_ && text == markText_) {
    stage_ = Stage::writing;
    return user_.outletHasWork();
  }
  std::optional<EtcdMark> mark;
  if (isThere) mark = EtcdMark::decode(text);
  // A history that another one wrote on, or that ends before our last state, is not ours any more:
  // its states would be taken for ours. That stays so until a state of the new one is written.
  beginsHistory_ = beginsHistory_ || !mark || isKnown_ || (hasWritten_ && text != markText_);
  markText_ = text;
  mark_ = mark.value_or(EtcdMark());
  cut_ = 0;
  if (mark) cut_ = mark->part == 0 ? response.kvs(0).mod_revision() : mark->cut;
  if (beginsHistory_) {
    mark_.history = randomNumber();
    cut_ = 0;
  }
  startOver();
}

/// Everything is compared anew.
void EtcdOutlet::startOver() {
  stage_ = Stage::ready;
  isKnown_ = false;
  changes_.clear();
  places_.clear();
  bytes_ = 0;
  state_.reset();
  sent_.clear();
  sentText_.clear();
  wasSent_ = false;
  isTooMuch_ = false;
  there_.clear();
  user_.outletHasWork();
}

void EtcdOutlet::timePasses(milliseconds time) {
  if (!changes_.empty() || isSending_) roundAge_ += time;
  if (keepAlive_ == nullptr) return;
  leaseSilence_ += time;
  leaseIdle_ += time;
  const milliseconds lease = options_.lease;
  if (leaseSilence_ > 2 * lease / 3) {
    return lose({Fault::Kind::unavailable, "the lease of the name was not kept in time"});
  }
  if (leaseIdle_ >= lease / 4) askForLease();
}

// ---------------------------------------------------------------------------------------------
// What is there

void EtcdOutlet::work() {
  if (stage_ == Stage::ready && sender_.isComplete()) {
    stage_ = Stage::reading;
    tables_ = sender_.tables();
    for (const TableSender::Table& table : tables_) {
      if (table.isGone || EtcdKeys::mayName(table.name)) continue;
      return lose({Fault::Kind::other, "no name of a table on a cluster: " + table.name});
    }
    there_ = std::vector<There>(tables_.size());
    paged_ = 0;
    sender_.restart();
    readTable();
  }
  if (stage_ == Stage::writing) write();
}

void EtcdOutlet::readTable() {
  while (paged_ < tables_.size() && tables_[paged_].isGone) ++paged_;
  if (paged_ == tables_.size()) return haveRead();
  page_.emplace(keys_.rows(tables_[paged_].name), readRevision_);
  etcd::RangeRequest request;
  request.set_key(keys_.layout(tables_[paged_].name));
  request.set_revision(readRevision_);
  client_.range(request, [this](const Fault& fault, etcd::RangeResponse& response) {
    if (fault) return lose(fault);
    if (response.kvs_size() == 1) there_[paged_].layout = response.kvs(0).value();
    readPage();
  });
}

void EtcdOutlet::There::add(const etcd::RangeResponse& page, const EtcdKeys& keys) {
  std::size_t length = 0;
  for (const etcd::KeyValue& kv : page.kvs()) length += kv.value().size();
  pages.push_back(std::make_unique<char[]>(length));
  char* bytes = pages.back().get();
  for (const etcd::KeyValue& kv : page.kvs()) {
    const auto key = keys.rowOf(kv.key());
    if (!key) continue;
    const std::string& value = kv.value();
    value.copy(bytes, value.size());
    rows.push_back({key->oid, static_cast<std::uint32_t>(value.size()), bytes});
    bytes += value.size();
  }
}

EtcdOutlet::There::Row* EtcdOutlet::There::find(oid_t oid) {
  const auto found = std::ranges::lower_bound(rows, oid, {}, &Row::oid);
  const bool isThere = found != rows.end() && found->oid == oid && found->bytes != nullptr;
  return isThere ? &*found : nullptr;
}

void EtcdOutlet::readPage() {
  client_.range(page_->request(), [this](const Fault& fault, etcd::RangeResponse& response) {
    if (fault) return lose(fault);
    there_[paged_].add(response, keys_);
    if (page_->goOn(response)) return readPage();
    ++paged_;
    readTable();
  });
}

void EtcdOutlet::haveRead() {
  stage_ = Stage::writing;
  isKnown_ = true;
  isCompared_ = false;
  isMarkDue_ = true;
  for (const EtcdMark::Table& table : mark_.tables) {
    if (isPublished(table.name) || isKept(table.name)) continue;
    const std::string rows = keys_.rows(table.name);
    etcd::RequestOp removal;
    removal.mutable_request_delete_range()->set_key(rows);
    removal.mutable_request_delete_range()->set_range_end(EtcdKeys::endOf(rows));
    add({0, 0, nullptr, removal});
    removal.mutable_request_delete_range()->clear_range_end();
    removal.mutable_request_delete_range()->set_key(keys_.layout(table.name));
    add({0, 0, nullptr, std::move(removal)});
  }
  for (std::size_t i = 0; i < tables_.size(); ++i) {
    if (tables_[i].isGone || tables_[i].layoutText == there_[i].layout) continue;
    etcd::RequestOp put;
    put.mutable_request_put()->set_key(keys_.layout(tables_[i].name));
    put.mutable_request_put()->set_value(tables_[i].layoutText);
    add({0, 0, nullptr, std::move(put)});
  }
  user_.outletHasWork();
}

// ---------------------------------------------------------------------------------------------
// What changes

void EtcdOutlet::write() {
  if (isSending_ || timer_->pending()) return;
  if (!sentText_.empty()) {
    // What no server takes may have been changed meanwhile.
    if (isTooMuch_ && sender_.isBehind()) return startOver();
    return transact();
  }
  const std::vector<TableSender::Table> tables = sender_.tables();
  const auto isSame = [](const auto& a, const auto& b) { return a.isGone == b.isGone; };
  if (!std::ranges::equal(tables, tables_, isSame)) return startOver();
  if (!pull()) return;
  if (changes_.empty() && !state_) return;
  sendTransaction();
}

/// False if all has to be compared anew, or nothing may be written now.
bool EtcdOutlet::pull() {
  if (state_) return true;
  if (!sender_.isComplete()) return false;
  if (!isMarkDue_ && changes_.empty() && !sender_.isBehind()) return false;
  const bool takesAll = isStarved();
  TableSender::Change change;
  while (takesAll || (changes_.size() < mostOperations_ && bytes_ < mostBytes_)) {
    if (!sender_.next(change)) {
      if (!isCompared_) addRemovals();
      state_ = sender_.mark();
      return true;
    }
    if (change.kind == TableSender::Kind::whole) {
      if (isCompared_) {
        startOver();
        return false;
      }
      continue;
    }
    keep(change);
    // Much is equal, or much is taken at once.
    if ((takesAll || changes_.empty()) && user_.outletShouldYield()) {
      user_.outletHasWork();
      return false;
    }
  }
  return true;
}

/// About what it takes of a transaction.
std::size_t EtcdOutlet::bytesOf(const Change& change) const {
  if (change.request) return change.request->ByteSizeLong();
  return (change.row == nullptr ? 0 : rowLength(change.row)) +
         keys_.rows(tables_[change.table].name).size() + operationBytes;
}

void EtcdOutlet::add(Change change) {
  bytes_ += bytesOf(change);
  changes_.push_back(std::move(change));
}

void EtcdOutlet::keep(TableSender::Change& change) {
  if (!isCompared_) {
    There::Row* const known = there_[change.table].find(change.oid);
    // What is removed from here on is told, or written as any other change.
    if (known != nullptr && change.row != nullptr) {
      const char* const bytes = std::exchange(known->bytes, nullptr);
      if (known->length == rowLength(change.row) &&
          std::memcmp(bytes, change.row->buf_, known->length) == 0) {
        return;
      }
    }
  }
  const auto [place, isNew] =
      places_.try_emplace(placeOf(change.table, change.oid), taken_ + changes_.size());
  if (isNew) return add({change.table, change.oid, std::move(change.row), std::nullopt});
  Change& present = changes_[place->second - taken_];
  bytes_ -= bytesOf(present);
  present.row = std::move(change.row);
  bytes_ += bytesOf(present);
}

/// Of rows that are there and in no table.
void EtcdOutlet::addRemovals() {
  isCompared_ = true;
  for (std::size_t i = 0; i < there_.size(); ++i) {
    for (const There::Row& row : there_[i].rows) {
      if (row.bytes == nullptr) continue;
      const auto number = static_cast<std::uint16_t>(i);
      TableSender::Change removal{TableSender::Kind::removed, number, row.oid, nullptr};
      keep(removal);
    }
  }
  there_.clear();
}

/// Tables that change faster than they are written would never come to a state: what is left is
/// taken as it stands now. Its bytes are shared.
bool EtcdOutlet::isStarved() const {
  return roundAge_ >= roundLimit;
}

bool EtcdOutlet::isPublished(const std::string& table) const {
  return std::ranges::any_of(tables_,
                             [&](const auto& own) { return !own.isGone && own.name == table; });
}

bool EtcdOutlet::isKept(const std::string& table) const {
  return std::ranges::find(keptTables_, table) != keptTables_.end() && !isPublished(table);
}

std::vector<EtcdMark::Table> EtcdOutlet::markTables(const TableMark* state) const {
  std::vector<EtcdMark::Table> all;
  if (state != nullptr) {
    for (const TableMark::Table& table : state->tables) {
      all.push_back({tables_[table.number].name, table.rows, table.digest});
    }
    for (const EtcdMark::Table& table : mark_.tables) {
      if (isKept(table.name)) all.push_back({table.name, 0, 0, true});
    }
    return all;
  }
  for (const TableSender::Table& table : tables_) {
    if (!table.isGone) all.push_back({table.name, 0, 0});
  }
  for (const EtcdMark::Table& table : mark_.tables) {
    if (std::ranges::find(all, table.name, &EtcdMark::Table::name) == all.end()) {
      all.push_back({table.name, 0, 0});
    }
  }
  return all;
}

void EtcdOutlet::sendTransaction() {
  std::size_t bytes = 0;
  while (!changes_.empty() && sent_.size() + 1 < mostOperations_) {
    Change& change = changes_.front();
    const std::size_t more = bytesOf(change);
    if (!sent_.empty() && bytes + more > mostBytes_) break;
    bytes += more;
    bytes_ -= more;
    if (!change.request) places_.erase(placeOf(change.table, change.oid));
    sent_.push_back(std::move(change));
    changes_.pop_front();
    ++taken_;
  }
  const bool isState = state_ && changes_.empty();
  sentMark_ = mark_;
  if (mark_.part == 0) sentMark_.sequence = mark_.sequence + 1;
  if (isState) {
    sentState_ = *std::exchange(state_, std::nullopt);
    sentMark_.part = 0;
    sentMark_.cut = 0;
    sentMark_.batches += sentState_->merged + 1;
    sentMark_.tables = markTables(&*sentState_);
    isMarkDue_ = false;
  } else {
    sentState_.reset();
    sentMark_.part = mark_.part + 1;
    sentMark_.cut = cut_;
    sentMark_.tables = markTables(nullptr);
  }
  sentText_ = sentMark_.encode();
  transact();
}

void EtcdOutlet::transact() {
  etcd::TxnRequest request;
  etcd::Compare& isOwner = *request.add_compare();
  isOwner.set_target(etcd::Compare::CREATE);
  isOwner.set_key(keys_.owner());
  isOwner.set_create_revision(owner_);
  etcd::Compare& isKnown = *request.add_compare();
  isKnown.set_key(keys_.mark());
  if (markText_.empty()) {
    isKnown.set_target(etcd::Compare::CREATE);
    isKnown.set_create_revision(0);
  } else {
    isKnown.set_target(etcd::Compare::VALUE);
    isKnown.set_value(markText_);
  }
  for (const Change& change : sent_) {
    etcd::RequestOp& operation = *request.add_success();
    if (change.request) {
      operation = *change.request;
    } else if (change.row == nullptr) {
      operation.mutable_request_delete_range()->set_key(
          keys_.row(tables_[change.table].name, change.oid));
    } else {
      etcd::PutRequest& put = *operation.mutable_request_put();
      put.set_key(keys_.row(tables_[change.table].name, change.oid));
      put.set_value(change.row->buf_, rowLength(change.row));
    }
  }
  etcd::PutRequest& put = *request.add_success()->mutable_request_put();
  put.set_key(keys_.mark());
  put.set_value(sentText_);
  addRange(*request.mutable_failure(), keys_.owner());
  addRange(*request.mutable_failure(), keys_.mark());
  if (wasSent_) ++counters_->retried;
  wasSent_ = true;
  isSending_ = true;
  client_.transact(request, [this](const Fault& fault, etcd::TxnResponse& response) {
    written(fault, response);
  });
}

void EtcdOutlet::written(const Fault& fault, const etcd::TxnResponse& response) {
  isSending_ = false;
  switch (fault.kind) {
    case Fault::Kind::none:
      break;
    case Fault::Kind::tooMany:
    case Fault::Kind::tooLarge:
      if (sent_.size() < 2) {
        isTooMuch_ = true;
        return waitWith(fault);
      }
      if (fault.kind == Fault::Kind::tooLarge) {
        mostBytes_ = 0;
        for (const Change& change : sent_) mostBytes_ += bytesOf(change);
        mostBytes_ /= 2;
      } else {
        mostOperations_ =
            mostOperations_ > operationsOfServers ? operationsOfServers : sent_.size() / 2 + 1;
      }
      takeBack();
      return user_.outletHasWork();
    case Fault::Kind::noSpace:
      return waitWith(fault);
    default:
      return lose(fault);
  }
  if (!response.succeeded()) return refused(response);
  problem_.clear();
  adoptMark(response.header().revision());
  user_.outletHasWork();
}

/// What does not go away by itself is tried now and then; the name is kept meanwhile.
void EtcdOutlet::waitWith(const Fault& fault) {
  problem_ = client_.member() + ": " + fault.text;
  backoff_.slowDown();
  pauseFor(backoff_.next());
}

/// Somebody wrote in between, unless it was this transaction itself.
void EtcdOutlet::refused(const etcd::TxnResponse& response) {
  if (response.responses_size() != 2) return lose({Fault::Kind::other, "half an answer"});
  const auto& owners = response.responses(0).response_range().kvs();
  const auto& marks = response.responses(1).response_range().kvs();
  if (owners.empty() || owners[0].create_revision() != owner_) {
    lease_ = 0;
    owner_ = 0;
    return lose({Fault::Kind::other, owners.empty()
                                         ? "the lease of the name ended"
                                         : "another publisher took the name " + address_.publisher +
                                               ": " + owners[0].value()});
  }
  if (!marks.empty() && marks[0].value() == sentText_) {
    ++counters_->recognised;
    adoptMark(marks[0].mod_revision());
    return user_.outletHasWork();
  }
  readRevision_ = response.header().revision();
  judgeMark(response.responses(1).response_range());
}

/// Makes changes of what could not be sent as one.
void EtcdOutlet::takeBack() {
  std::size_t at = taken_ - sent_.size();
  for (std::size_t i = sent_.size(); i-- > 0;) {
    Change& change = sent_[i];
    --taken_;
    bytes_ += bytesOf(change);
    changes_.push_front(std::move(change));
  }
  for (; at < taken_ + changes_.size(); ++at) {
    const Change& change = changes_[at - taken_];
    if (!change.request) places_[placeOf(change.table, change.oid)] = at;
  }
  sent_.clear();
  sentText_.clear();
  wasSent_ = false;
  isTooMuch_ = false;
  if (sentState_) {
    state_ = *std::exchange(sentState_, std::nullopt);
    isMarkDue_ = true;
  }
}

/// The transaction under way has been made.
void EtcdOutlet::adoptMark(std::int64_t revision) {
  ++counters_->transactions;
  counters_->rows += static_cast<std::uint64_t>(
      std::ranges::count_if(sent_, [](const Change& change) { return !change.request; }));
  mark_ = sentMark_;
  markText_ = sentText_;
  hasWritten_ = true;
  beginsHistory_ = false;
  readRevision_ = revision;
  backoff_.reset();
  if (sentState_) {
    acked_ = sentState_->sequence;
    merged_ += sentState_->merged;
    cut_ = revision;
    roundAge_ = milliseconds(0);
  }
  sent_.clear();
  sentText_.clear();
  sentState_.reset();
  wasSent_ = false;
  isTooMuch_ = false;
}

}  // namespace Korvo::detail
