#include "EtcdQuestion.h"

#include <Korvo/AnyRow.h>

namespace Korvo::detail {

EtcdQuestion::EtcdQuestion(const EtcdAddress& address, const EtcdSettings& settings,
                           const KoPtr<Scheduler>& scheduler, TableQuestion::User& user)
    : address_(address),
      keys_(address.prefix()),
      user_(user),
      untried_(address.members.size()),
      client_(address, settings, scheduler) {
  begin();
}

void EtcdQuestion::begin() {
  --untried_;
  client_.begin([this](const Fault& fault) {
    if (fault) return lose(fault);
    look();
  });
}

/// Another member may know more.
void EtcdQuestion::lose(const Fault& fault) {
  if (fault.kind == Fault::Kind::unavailable && untried_ != 0) return begin();
  fail(client_.member() + ": " + fault.text);
}

void EtcdQuestion::fail(const std::string& reason) {
  client_.cancel();
  user_.questionFails(reason);
}

/// Mark and owner, at one revision.
void EtcdQuestion::look() {
  info_ = {};
  info_.name = address_.publisher;
  etcd::TxnRequest request;
  request.add_success()->mutable_request_range()->set_key(keys_.mark());
  request.add_success()->mutable_request_range()->set_key(keys_.owner());
  client_.transact(request, [this](const Fault& fault, etcd::TxnResponse& response) {
    if (fault) return lose(fault);
    looked(response);
  });
}

void EtcdQuestion::looked(const etcd::TxnResponse& response) {
  if (response.responses_size() != 2) return fail(client_.member() + ": half an answer");
  const auto& marks = response.responses(0).response_range().kvs();
  const auto& owners = response.responses(1).response_range().kvs();
  owner_ = owners.empty() ? 0 : owners[0].create_revision();
  ownerText_ = owners.empty() ? "" : owners[0].value();
  if (marks.empty()) {
    return fail(owner_ == 0 ? "nothing is published under " + keys_.all()
                            : ownerText_ + " has not loaded its rows yet");
  }
  const std::optional<EtcdMark> mark = EtcdMark::decode(marks[0].value());
  if (!mark) return fail("the mark of " + address_.publisher + " has another form");
  if (mark->part == 0) {
    // Of the mark's own revision the layouts may be compacted long since.
    return stateIs(*mark, marks[0].mod_revision(), response.header().revision());
  }
  // A batch is under way: what readers are shown is the state before.
  if (mark->cut == 0) return fail(ownerText_ + " has not written all its rows yet");
  readState(mark->cut);
}

void EtcdQuestion::readState(std::int64_t revision) {
  etcd::RangeRequest request;
  request.set_key(keys_.mark());
  request.set_revision(revision);
  client_.range(request, [this, revision](const Fault& fault, etcd::RangeResponse& response) {
    if (fault.kind == Fault::Kind::compacted) return fail("the last state was compacted");
    if (fault) return lose(fault);
    std::optional<EtcdMark> mark;
    if (response.kvs_size() == 1) mark = EtcdMark::decode(response.kvs(0).value());
    if (!mark || mark->part != 0) return fail("the last state has no mark");
    stateIs(*mark, revision, revision);
  });
}

void EtcdQuestion::stateIs(const EtcdMark& mark, std::int64_t revision, std::int64_t readAt) {
  revision_ = readAt;
  next_ = 0;
  info_.epoch = mark.history;
  info_.sequence = mark.sequence;
  info_.isComplete = owner_ != 0 && revision > owner_;
  info_.store = {ownerText_, static_cast<std::uint64_t>(revision)};
  for (const EtcdMark::Table& table : mark.tables) {
    if (table.isKept) continue;
    PublisherInfo::Table& told = info_.tables.emplace_back();
    told.name = table.name;
    told.rows = table.rows;
  }
  readLayout();
}

void EtcdQuestion::readLayout() {
  if (next_ == info_.tables.size()) {
    client_.cancel();
    return user_.answerComes(info_);
  }
  etcd::RangeRequest request;
  request.set_key(keys_.layout(info_.tables[next_].name));
  request.set_revision(revision_);
  client_.range(request, [this](const Fault& fault, etcd::RangeResponse& response) {
    // It was compacted meanwhile, and there is a later state.
    if (fault.kind == Fault::Kind::compacted) return look();
    if (fault) return lose(fault);
    PublisherInfo::Table& table = info_.tables[next_++];
    if (response.kvs_size() == 1) table.layoutText = response.kvs(0).value();
    try {
      table.fingerprint = DynamicLayout(table.layoutText).fingerprint();
    } catch (const KoBaseException&) {
      // What is wrong with it is told to those who want its rows.
    }
    readLayout();
  });
}

}  // namespace Korvo::detail
