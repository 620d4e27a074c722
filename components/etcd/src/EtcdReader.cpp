#include <Korvo/EtcdReader.h>
#include <Korvo/rowFormat.h>

#include <algorithm>
#include <utility>

#include "EtcdClient.h"
#include "EtcdKeys.h"
#include "EtcdPage.h"

namespace Korvo {

using detail::EtcdFault;
using detail::EtcdMark;
using std::chrono::milliseconds;

class EtcdReader::Impl final : public std::enable_shared_from_this<Impl>,
                               private Velto::Platform::TimeoutHandler {
 public:
  class Question;

  Impl(const std::string& address, const KoPtr<Scheduler>& scheduler, milliseconds limit)
      : address_(address),
        keys_(address_.prefix()),
        limit_(limit),
        scheduler_(scheduler),
        timer_(scheduler->getTimerControl(this)),
        client_(address_, detail::EtcdSettings::fromEnvironment(), scheduler) {}

  void add(const std::shared_ptr<Question>& question);

 private:
  enum class Stage {
    idle,      ///< nobody asked yet, or nobody asks any more
    paused,    ///< until the timer tells
    greeting,  ///< a member
    talking
  };

  void begin();
  void lose(const EtcdFault& fault);
  void onTimeout() override;
  void endAll(const std::string& problem);
  std::string toldBy(const EtcdFault& fault) const { return client_.member() + ": " + fault.text; }

  const detail::EtcdAddress address_;
  const detail::EtcdKeys keys_;
  const milliseconds limit_;
  const KoPtr<Scheduler> scheduler_;
  std::vector<std::shared_ptr<Question>> questions_;  ///< that are open
  Stage stage_ = Stage::idle;
  std::string lastFault_ = "no member has answered";
  detail::EtcdBackoff backoff_;
  std::unique_ptr<Velto::Platform::TimerControl> timer_;
  detail::EtcdClient client_;
};

/// One question, from the look at where the publisher stands to the last of its rows. It asks for
/// one thing at a time.
class EtcdReader::Impl::Question final : public std::enable_shared_from_this<Question>,
                                         private Velto::Platform::TimeoutHandler {
 public:
  using Told = std::function<void(const detail::EtcdRows&)>;

  Question(Impl& impl, std::string table, std::optional<oid_t> oid, const LayoutInfo& ours,
           Told told)
      : impl_(impl),
        table_(std::move(table)),
        oid_(oid),
        ours_(ours),
        told_(std::move(told)),
        timer_(impl.scheduler_->getTimerControl(this)) {
    timer_->timeoutIs(impl_.limit_);
  }

  /// From the beginning, in a conversation that has begun.
  void start() {
    found_ = {};
    look(0, [this](const etcd::TxnResponse& response) { judge(response); });
  }

  /// Tells, as its last deed.
  void end(const std::string& problem) {
    const auto kept = shared_from_this();
    std::erase(impl_.questions_, kept);
    timer_->cancel();
    if (problem.empty()) {
      impl_.backoff_.reset();
    } else {
      found_ = {{}, problem, false};
    }
    told_(found_);
  }

 private:
  void onTimeout() override {
    end("no answer within " + std::to_string(impl_.limit_.count()) +
        " milliseconds: " + impl_.lastFault_);
  }

  /// For an answer, as long as the question is open.
  template <typename Response, typename Work>
  detail::EtcdClient::Done<Response> done(Work work) {
    return [asked = weak_from_this(), work = std::move(work)](const EtcdFault& fault,
                                                              Response& response) {
      const auto kept = asked.lock();
      if (kept == nullptr) return;
      if (fault.kind == EtcdFault::Kind::denied) return kept->end(kept->impl_.toldBy(fault));
      if (fault.kind == EtcdFault::Kind::compacted) return kept->lookAgain(fault.text);
      if (fault) return kept->impl_.lose(fault);
      work(response);
    };
  }

  /// Where the publisher stands, the layout, and the row if it is one, all at one revision; 0: the
  /// present one.
  template <typename Work>
  void look(std::int64_t revision, Work work) {
    etcd::TxnRequest request;
    std::vector<std::string> keys = {impl_.keys_.mark(), impl_.keys_.layout(table_)};
    if (oid_) keys.push_back(impl_.keys_.row(table_, *oid_));
    if (revision == 0) keys.push_back(impl_.keys_.owner());
    for (const std::string& key : keys) {
      etcd::RangeRequest& range = *request.add_success()->mutable_request_range();
      range.set_key(key);
      range.set_revision(revision);
    }
    const int answers = request.success_size();
    impl_.client_.transact(request, done<etcd::TxnResponse>([=, this](etcd::TxnResponse& response) {
                             if (response.responses_size() != answers) {
                               return impl_.lose({EtcdFault::Kind::other, "half an answer"});
                             }
                             work(response);
                           }));
  }

  static const google::protobuf::RepeatedPtrField<etcd::KeyValue>& at(
      const etcd::TxnResponse& response, int number) {
    return response.responses(number).response_range().kvs();
  }

  void judge(const etcd::TxnResponse& response) {
    const auto& marks = at(response, 0);
    if (marks.empty()) return end(impl_.address_.publisher + " has published nothing");
    const std::optional<EtcdMark> mark = EtcdMark::decode(marks[0].value());
    if (!mark) return end("the mark of " + impl_.address_.publisher + " has another form");
    const auto& owners = at(response, response.responses_size() - 1);
    owner_ = owners.empty() ? 0 : owners[0].create_revision();
    if (mark->part == 0) return take(response, response.header().revision());
    // A batch is under way; the answer is as of the state before it.
    if (mark->cut == 0) return lookAgain("the first state is still being written");
    look(mark->cut, [this, cut = mark->cut](const etcd::TxnResponse& state) { take(state, cut); });
  }

  /// `response` is of a state.
  void take(const etcd::TxnResponse& response, std::int64_t revision) {
    const auto& marks = at(response, 0);
    const auto mark = marks.empty() ? std::nullopt : EtcdMark::decode(marks[0].value());
    if (!mark || mark->part != 0) return lookAgain("there is no state");
    found_.isKept = owner_ != 0 && marks[0].mod_revision() > owner_;
    const EtcdMark::Table* const table = mark->find(table_);
    if (table == nullptr) return end(mark->absence(impl_.address_.publisher, table_));
    rows_ = table->rows;
    const auto& layouts = at(response, 1);
    if (layouts.empty()) return end(table_ + ": its layout is missing");
    try {
      plan_.emplace(DynamicLayout(layouts[0].value()).info(), ours_);
    } catch (const KoBaseException& error) {
      return end(table_ + ": " + error.what());
    }
    if (!oid_) {
      page_.emplace(impl_.keys_.rows(table_), revision);
      return readPage();
    }
    if (!at(response, 2).empty() && !takeRow(at(response, 2)[0])) return;
    end("");
  }

  void readPage() {
    impl_.client_.range(
        page_->request(),
        done<etcd::RangeResponse>([this](etcd::RangeResponse& response) { takePage(response); }));
  }

  void takePage(const etcd::RangeResponse& response) {
    if (!isAgain_) timer_->timeoutIs(impl_.limit_);
    for (const etcd::KeyValue& kv : response.kvs()) {
      if (!takeRow(kv)) return;
    }
    if (page_->goOn(response)) return readPage();
    end(found_.rows.size() == rows_ ? "" : "the rows of " + table_ + " are not the publisher's");
  }

  /// False: it could not be taken, and the question has ended.
  bool takeRow(const etcd::KeyValue& kv) {
    const std::string& value = kv.value();
    const auto* const bytes = reinterpret_cast<const byte_t*>(value.data());
    const auto key = impl_.keys_.rowOf(kv.key());
    const auto refuse = [&](const std::string& reason) {
      end(kv.key() + ": " + reason);
      return false;
    };
    if (!key) return refuse("no row's key");
    if (const RowFault bad = checkRow(bytes, value.size(), plan_->comparison().sender().info())) {
      return refuse(bad.text());
    }
    if (loadField<oid_t>(bytes + rowOidOffset) != key->oid) return refuse("another one's oid");
    try {
      std::string row(plan_->convertedLength(bytes, value.size()), '\0');
      plan_->write(bytes, reinterpret_cast<byte_t*>(row.data()));
      found_.rows.push_back(std::move(row));
    } catch (const KoBaseException& error) {
      return refuse(error.what());
    }
    return true;
  }

  /// In another conversation, which does not have more time.
  void lookAgain(const std::string& reason) {
    isAgain_ = true;
    impl_.lose({EtcdFault::Kind::other, reason});
  }

  Impl& impl_;
  const std::string table_;
  const std::optional<oid_t> oid_;  ///< nothing: all rows
  const LayoutInfo& ours_;
  const Told told_;
  std::unique_ptr<Velto::Platform::TimerControl> timer_;

  detail::EtcdRows found_;
  std::int64_t owner_ = 0;
  std::uint64_t rows_ = 0;  ///< that the state has
  std::optional<ConversionPlan> plan_;
  std::optional<detail::EtcdPage> page_;
  bool isAgain_ = false;
};

void EtcdReader::Impl::add(const std::shared_ptr<Question>& question) {
  questions_.push_back(question);
  if (stage_ == Stage::talking) question->start();
  if (stage_ == Stage::idle) begin();
}

void EtcdReader::Impl::begin() {
  stage_ = Stage::greeting;
  client_.begin([this](const EtcdFault& fault) {
    if (fault.kind == EtcdFault::Kind::denied) return endAll(toldBy(fault));
    if (fault) return lose(fault);
    stage_ = Stage::talking;
    for (const auto& question : questions_) question->start();
  });
}

/// The conversation is over; all that is open is asked in another one.
void EtcdReader::Impl::lose(const EtcdFault& fault) {
  lastFault_ = toldBy(fault);
  client_.cancel();
  stage_ = Stage::paused;
  timer_->timeoutIs(backoff_.next());
}

void EtcdReader::Impl::onTimeout() {
  stage_ = Stage::idle;
  if (!questions_.empty()) begin();
}

void EtcdReader::Impl::endAll(const std::string& problem) {
  stage_ = Stage::idle;
  const std::weak_ptr<Impl> alive = weak_from_this();
  const auto all = questions_;
  for (const auto& question : all) {
    // What is told may be the end of the reader.
    if (alive.expired()) return;
    question->end(problem);
  }
}

EtcdReader::EtcdReader(const std::string& address, const KoPtr<Scheduler>& scheduler,
                       milliseconds limit) {
  if (limit <= milliseconds(0)) {
    throw KoInvalidArgument("Limit out of range - (" + std::to_string(limit.count()) + ")");
  }
  impl_ = std::make_shared<Impl>(address, scheduler, limit);
}

EtcdReader::~EtcdReader() = default;

void EtcdReader::ask(const std::string& table, std::optional<oid_t> oid, const LayoutInfo& ours,
                     std::function<void(const detail::EtcdRows&)> told) {
  impl_->add(std::make_shared<Impl::Question>(*impl_, table, oid, ours, std::move(told)));
}

}  // namespace Korvo
