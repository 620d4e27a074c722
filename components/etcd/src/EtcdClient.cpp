#include "EtcdClient.h"

#include <Korvo/TableEngine.h>
#include <grpcpp/generic/generic_stub.h>
#include <grpcpp/grpcpp.h>
#include <grpcpp/impl/codegen/proto_utils.h>  // messages are sent as they are

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <set>
#include <thread>
#include <utility>
#include <vector>

namespace Korvo::detail {

namespace {

using std::chrono::nanoseconds;

constexpr milliseconds callLimit{5000};
/// While there is no leader requests may get lost; sending one again does no harm.
constexpr milliseconds transactionLimit{2000};
constexpr milliseconds goodbyeLimit{500};

// The service's methods.
constexpr const char* rangeMethod = "/etcdserverpb.KV/Range";
constexpr const char* txnMethod = "/etcdserverpb.KV/Txn";
constexpr const char* compactMethod = "/etcdserverpb.KV/Compact";
constexpr const char* watchMethod = "/etcdserverpb.Watch/Watch";
constexpr const char* grantMethod = "/etcdserverpb.Lease/LeaseGrant";
constexpr const char* revokeMethod = "/etcdserverpb.Lease/LeaseRevoke";
constexpr const char* keepAliveMethod = "/etcdserverpb.Lease/LeaseKeepAlive";
constexpr const char* authenticateMethod = "/etcdserverpb.Auth/Authenticate";
constexpr const char* statusMethod = "/etcdserverpb.Maintenance/Status";

EtcdFault faultOf(const grpc::Status& status) {
  using Kind = EtcdFault::Kind;
  if (status.ok()) return {};
  const std::string& text = status.error_message();
  const auto says = [&](const char* words) { return text.find(words) != std::string::npos; };
  switch (status.error_code()) {
    case grpc::StatusCode::RESOURCE_EXHAUSTED:
      if (says("database space exceeded")) return {Kind::noSpace, text};
      if (says("larger than max")) return {Kind::tooLarge, text};
      return {Kind::unavailable, text};  // too many requests
    case grpc::StatusCode::INVALID_ARGUMENT:
      if (says("too many operations")) return {Kind::tooMany, text};
      if (says("too large")) return {Kind::tooLarge, text};
      if (says("authentication failed") || says("user name is empty") || says("auth revision")) {
        return {Kind::denied, text};
      }
      return {Kind::other, text};
    case grpc::StatusCode::UNAUTHENTICATED:
      // A token ends after some time; the next conversation has another one.
      if (says("invalid auth token")) return {Kind::unavailable, text};
      return {Kind::denied, text};
    case grpc::StatusCode::PERMISSION_DENIED:
      return {Kind::denied, text};
    case grpc::StatusCode::OUT_OF_RANGE:
      if (says("compacted")) return {Kind::compacted, text};
      return {Kind::other, text};
    case grpc::StatusCode::NOT_FOUND:
      if (says("lease not found")) return {Kind::noLease, text};
      return {Kind::other, text};
    case grpc::StatusCode::UNAVAILABLE:
    case grpc::StatusCode::DEADLINE_EXCEEDED:
    case grpc::StatusCode::CANCELLED:
    case grpc::StatusCode::ABORTED:
    case grpc::StatusCode::UNKNOWN:
    case grpc::StatusCode::INTERNAL:
      return {Kind::unavailable, text};
    default:
      return {Kind::other, text};
  }
}

/// gRPC's shortest time between connections is also the time that one may take.
grpc::ChannelArguments channelArguments() {
  grpc::ChannelArguments arguments;
  arguments.SetInt(GRPC_ARG_INITIAL_RECONNECT_BACKOFF_MS, 200);
  arguments.SetInt(GRPC_ARG_MIN_RECONNECT_BACKOFF_MS, 1000);
  arguments.SetInt(GRPC_ARG_MAX_RECONNECT_BACKOFF_MS, 1000);
  // Servers close connections that ask oftener than every five seconds.
  arguments.SetInt(GRPC_ARG_KEEPALIVE_TIME_MS, 10000);
  arguments.SetInt(GRPC_ARG_KEEPALIVE_TIMEOUT_MS, 5000);
  arguments.SetMaxReceiveMessageSize(-1);
  arguments.SetMaxSendMessageSize(-1);
  // As much as a server may send ahead of what is read, for each stream. gRPC's own measure of it
  // grows to many times of that where a server is near and its reader is held up.
  arguments.SetInt(GRPC_ARG_HTTP2_BDP_PROBE, 0);
  arguments.SetInt(GRPC_ARG_HTTP2_STREAM_LOOKAHEAD_BYTES, 1 << 20);
  // Channels of several clients in one process do not share a connection.
  arguments.SetInt(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1);
  return arguments;
}

std::shared_ptr<grpc::ChannelCredentials> credentials(const EtcdSettings& settings) {
  if (!settings.wantsTls()) return grpc::InsecureChannelCredentials();
  grpc::SslCredentialsOptions options;
  const EtcdSettings::Texts texts = settings.texts();
  options.pem_root_certs = texts.ca;
  options.pem_cert_chain = texts.certificate;
  options.pem_private_key = texts.key;
  return grpc::SslCredentials(options);
}

/// One operation that was begun: its address is the tag that comes back.
class Operation {
 public:
  Operation() = default;
  Operation(const Operation&) = delete;
  Operation& operator=(const Operation&) = delete;
  virtual ~Operation() = default;
  virtual void ended(bool ok) = 0;
};

/// Takes what gRPC has done, on a thread of its own, to the scheduler's.
class Pump {
 public:
  Pump(const KoPtr<Scheduler>& scheduler, std::function<void()> told)
      : signal_(scheduler, std::move(told)), thread_([this] { work(); }) {}
  Pump(const Pump&) = delete;
  Pump& operator=(const Pump&) = delete;
  ~Pump() { end(); }

  /// No operation is begun any more, and all that were are cancelled.
  void end() {
    if (!thread_.joinable()) return;
    queue_.Shutdown();
    thread_.join();
  }

  grpc::CompletionQueue& queue() { return queue_; }

  struct Ended {
    Operation* operation;
    bool ok;
  };
  std::vector<Ended> take() {
    const std::lock_guard lock(mutex_);
    return std::exchange(ended_, {});
  }
  /// Waits for something to take, for the time at the most.
  void wait(milliseconds most) {
    std::unique_lock lock(mutex_);
    came_.wait_for(lock, most, [this] { return !ended_.empty(); });
  }

 private:
  void work() {
    void* tag = nullptr;
    for (bool ok = false; queue_.Next(&tag, &ok);) {
      bool isFirst = false;
      {
        const std::lock_guard lock(mutex_);
        isFirst = ended_.empty();
        ended_.push_back({static_cast<Operation*>(tag), ok});
      }
      if (!isFirst) continue;
      came_.notify_one();
      signal_.give();
    }
  }

  grpc::CompletionQueue queue_;
  std::mutex mutex_;
  std::condition_variable came_;
  std::vector<Ended> ended_;
  ThreadSignal signal_;
  std::thread thread_;
};

}  // namespace

std::chrono::nanoseconds EtcdBackoff::next() {
  const nanoseconds most = longest_;
  longest_ = std::min(2 * longest_, last);
  return nanoseconds(std::uniform_int_distribution<nanoseconds::rep>(0, most.count())(random_));
}

class EtcdClient::Impl final : public Schedulable, public std::enable_shared_from_this<Impl> {
 public:
  /// A conversation's call or stream. It lives until all that it began has ended.
  class Conversation {
   public:
    explicit Conversation(Impl& impl) : impl_(impl) { impl_.conversations_.insert(this); }
    Conversation(const Conversation&) = delete;
    Conversation& operator=(const Conversation&) = delete;
    virtual ~Conversation() { impl_.conversations_.erase(this); }
    /// Its user is not told any more.
    virtual void abandon() { context.TryCancel(); }
    grpc::ClientContext context;

   protected:
    Impl& impl_;
  };

  Impl(const EtcdAddress& address, const EtcdSettings& settings, const KoPtr<Scheduler>& scheduler)
      : Schedulable("etcd", scheduler),
        address_(address),
        settings_(settings),
        credentials_(credentials(settings)),
        scheduler_(scheduler),
        pump_(scheduler, [this] { runnableIs(true); }) {
    member_ = std::random_device()() % address.members.size();
    connect();
    clientReadyIs(true);
  }

  void end() {
    isGone_ = true;
    begun_ = nullptr;
    runnableIs(false);
    abandonAll();
    pump_.end();
    takeEnded();
    // What is left is what was ended by the last ones.
    while (!ended_.empty()) endNext();
  }

  void abandonAll() {
    const std::vector<Conversation*> all(conversations_.begin(), conversations_.end());
    for (Conversation* const conversation : all) conversation->abandon();
  }

  void begin(std::function<void(const EtcdFault&)> done) {
    abandonAll();
    member_ = (member_ + 1) % address_.members.size();
    connect();
    token_.clear();
    if (settings_.user.empty()) {
      // Told in a turn of its own, as every answer is.
      begun_ = std::move(done);
      runnableIs(true);
      return;
    }
    begun_ = nullptr;
    etcd::AuthenticateRequest request;
    request.set_name(settings_.user);
    request.set_password(settings_.password);
    call<etcd::AuthenticateRequest, etcd::AuthenticateResponse>(
        authenticateMethod, request,
        [this, told = std::move(done)](const EtcdFault& fault,
                                       etcd::AuthenticateResponse& response) {
          if (!fault) token_ = response.token();
          told(fault);
        });
  }

  const std::string& member() const { return address_.members[member_]; }

  /// gRPC's own time limits are not used: its timers may stand still when the clock of the day is
  /// set back.
  template <typename Request, typename Response>
  class Call final : public Conversation,
                     private Operation,
                     private Velto::Platform::TimeoutHandler {
   public:
    Call(Impl& impl, const char* method, const Request& request, milliseconds limit,
         Done<Response> done)
        : Conversation(impl),
          done_(std::move(done)),
          limit_(limit),
          timer_(impl.scheduler_->getTimerControl(this)) {
      timer_->timeoutIs(limit);
      impl.identify(this->context);
      grpc::TemplatedGenericStub<Request, Response> stub(impl.channel_);
      reader_ = stub.PrepareUnaryCall(&this->context, method, request, &impl.pump_.queue());
      reader_->StartCall();
      reader_->Finish(&response_, &status_, static_cast<Operation*>(this));
    }
    void abandon() override {
      done_ = nullptr;
      Conversation::abandon();
    }

   private:
    void ended(bool) override {
      const std::unique_ptr<Call> self(this);
      // What is called may abandon all calls.
      const Done<Response> done = std::exchange(done_, nullptr);
      if (done) done(fault(), response_);
    }
    void onTimeout() override {
      isLate_ = true;
      this->context.TryCancel();
    }
    EtcdFault fault() const {
      if (!isLate_ || status_.ok()) return faultOf(status_);
      return {EtcdFault::Kind::unavailable,
              "no answer for " + std::to_string(limit_.count()) + " milliseconds"};
    }

    Done<Response> done_;
    milliseconds limit_;
    bool isLate_ = false;
    std::unique_ptr<Velto::Platform::TimerControl> timer_;
    std::unique_ptr<grpc::ClientAsyncResponseReader<Response>> reader_;
    Response response_;
    grpc::Status status_;
  };

  template <typename Request, typename Response>
  void call(const char* method, const Request& request, Done<Response> done,
            milliseconds limit = callLimit) {
    // Deletes itself when it has ended.
    // NOLINTNEXTLINE(cppcoreguidelines-owning-memory,clang-analyzer-cplusplus.NewDeleteLeaks)
    new Call<Request, Response>(*this, method, request, limit, std::move(done));
  }

  /// A stream as gRPC sees it; its user's end may be gone before.
  template <typename Request, typename Response>
  class Talk final : public Conversation {
   public:
    Talk(Impl& impl, const char* method, Done<Response> told, std::shared_ptr<Talk*> link)
        : Conversation(impl), told_(std::move(told)), link_(std::move(link)) {
      *link_ = this;
      impl.identify(this->context);
      // A member without a leader says so instead of being silent.
      this->context.AddMetadata("hasleader", "true");
      grpc::TemplatedGenericStub<Request, Response> stub(impl.channel_);
      stream_ = stub.PrepareCall(&this->context, method, &impl.pump_.queue());
      ++pending_;
      stream_->StartCall(&start_);
    }
    Talk(const Talk&) = delete;
    Talk& operator=(const Talk&) = delete;
    ~Talk() override { *link_ = nullptr; }

    void send(const Request& request) {
      toSend_.push_back(request);
      sendNext();
    }
    void next() {
      isWanted_ = true;
      goOn();
    }
    void abandon() override {
      told_ = nullptr;
      Conversation::abandon();
      // Nothing under way would tell of the end.
      if (pending_ == 0) finish();
    }

   private:
    struct Step final : Operation {
      Step(Talk& ofTalk, void (Talk::*then)(bool)) : talk(ofTalk), next(then) {}
      void ended(bool ok) override {
        --talk.pending_;
        (talk.*next)(ok);
      }
      Talk& talk;
      void (Talk::*next)(bool);
    };

    void started(bool ok) {
      if (!ok || !told_) return finish();
      isOpen_ = true;
      readNext();
      sendNext();
    }
    void goOn() {
      if (isOpen_ && isRead_ && isWanted_ && !this->impl_.isGone_) readNext();
    }
    void readNext() {
      isRead_ = false;
      isWanted_ = false;
      ++pending_;
      response_.Clear();
      stream_->Read(&response_, &read_);
    }
    void wasRead(bool ok) {
      if (!ok) return finish();
      isRead_ = true;
      tell({});
      if (!told_) return finish();
      goOn();
    }
    void sendNext() {
      if (!isOpen_ || isSending_ || toSend_.empty() || this->impl_.isGone_) return;
      isSending_ = true;
      ++pending_;
      stream_->Write(toSend_.front(), &write_);
    }
    void wasSent(bool ok) {
      isSending_ = false;
      toSend_.pop_front();
      if (!ok) return finish();
      sendNext();
    }
    void finish() {
      isOpen_ = false;
      if (std::exchange(isFinishing_, true)) return mayGo();
      if (this->impl_.isGone_) {
        // Nothing can be begun any more, and nobody wants to know.
        isFinished_ = true;
        return mayGo();
      }
      ++pending_;
      stream_->Finish(&status_, &finish_);
    }
    void finished(bool) {
      isFinished_ = true;
      EtcdFault fault = faultOf(status_);
      if (!fault) fault = {EtcdFault::Kind::unavailable, "the server ended the stream"};
      tell(fault);
      mayGo();
    }
    void mayGo() {
      // NOLINTNEXTLINE(cppcoreguidelines-owning-memory): see call()
      if (isFinished_ && pending_ == 0) delete this;
    }
    void tell(const EtcdFault& fault) {
      if (!told_) return;
      const Done<Response> told = told_;  // it may end the stream, and the client
      ++pending_;
      told(fault, response_);
      --pending_;
    }

    Done<Response> told_;
    std::shared_ptr<Talk*> link_;
    std::unique_ptr<grpc::ClientAsyncReaderWriter<Request, Response>> stream_;
    Response response_;
    grpc::Status status_;
    std::deque<Request> toSend_;
    bool isOpen_ = false;
    bool isRead_ = false;    ///< what was read last was told
    bool isWanted_ = false;  ///< and the next one is asked for
    bool isSending_ = false;
    bool isFinishing_ = false;
    bool isFinished_ = false;
    int pending_ = 0;  ///< operations that have not ended
    Step start_{*this, &Talk::started};
    Step read_{*this, &Talk::wasRead};
    Step write_{*this, &Talk::wasSent};
    Step finish_{*this, &Talk::finished};
  };

  /// A stream as its user sees it.
  template <typename Request, typename Response>
  class UserStream final : public Stream<Request> {
   public:
    UserStream(const std::shared_ptr<Impl>& impl, const char* method, Done<Response> told)
        : impl_(impl) {
      // Deletes itself when it has ended.
      // NOLINTNEXTLINE(cppcoreguidelines-owning-memory)
      new Talk<Request, Response>(*impl, method, std::move(told), talk_);
    }
    UserStream(const UserStream&) = delete;
    UserStream& operator=(const UserStream&) = delete;
    ~UserStream() override {
      if (*talk_ != nullptr) (*talk_)->abandon();
    }
    void send(const Request& request) override {
      if (*talk_ != nullptr) (*talk_)->send(request);
    }
    void next() override {
      if (*talk_ != nullptr) (*talk_)->next();
    }

   private:
    std::shared_ptr<Impl> impl_;
    /// Null once the stream has ended.
    std::shared_ptr<Talk<Request, Response>*> talk_ =
        std::make_shared<Talk<Request, Response>*>(nullptr);
  };

  void finish(milliseconds most) {
    const auto end = std::chrono::steady_clock::now() + most;
    while (!conversations_.empty()) {
      const auto left =
          std::chrono::duration_cast<milliseconds>(end - std::chrono::steady_clock::now());
      if (left.count() <= 0) return;
      pump_.wait(left);
      takeEnded();
      while (!ended_.empty()) endNext();
    }
  }

 private:
  /// Each conversation has a connection of its own, which is made at once: one that failed would
  /// wait before it is made again.
  void connect() {
    channel_ = grpc::CreateCustomChannel(member(), credentials_, channelArguments());
  }

  void takeEnded() {
    for (const Pump::Ended& ended : pump_.take()) ended_.push_back(ended);
  }
  void endNext() {
    const Pump::Ended next = ended_.front();
    ended_.pop_front();
    next.operation->ended(next.ok);
  }

  void run(bool) override {
    const std::shared_ptr<Impl> kept = shared_from_this();
    if (begun_) std::exchange(begun_, nullptr)({});
    if (!isGone_) takeEnded();
    while (!isGone_ && !ended_.empty() && !shouldYield()) endNext();
    if (!isGone_ && (!ended_.empty() || begun_)) runnableIs(true);
  }

  void identify(grpc::ClientContext& context) const {
    if (!token_.empty()) context.AddMetadata("token", token_);
  }

  const EtcdAddress address_;
  const EtcdSettings settings_;
  std::set<Conversation*> conversations_;
  std::deque<Pump::Ended> ended_;
  std::shared_ptr<grpc::ChannelCredentials> credentials_;
  KoPtr<Scheduler> scheduler_;
  std::shared_ptr<grpc::Channel> channel_;
  std::size_t member_ = 0;
  std::string token_;
  std::function<void(const EtcdFault&)> begun_;
  bool isGone_ = false;
  Pump pump_;  // ends before what it tells of
};

// ---------------------------------------------------------------------------------------------

EtcdClient::EtcdClient(const EtcdAddress& address, const EtcdSettings& settings,
                       const KoPtr<Scheduler>& scheduler)
    : impl_(std::make_shared<Impl>(address, settings, scheduler)) {}

EtcdClient::~EtcdClient() {
  impl_->end();
}

void EtcdClient::cancel() {
  impl_->abandonAll();
}

void EtcdClient::begin(std::function<void(const EtcdFault& fault)> done) {
  impl_->begin(std::move(done));
}

const std::string& EtcdClient::member() const {
  return impl_->member();
}

void EtcdClient::range(const etcd::RangeRequest& request, Done<etcd::RangeResponse> done) {
  impl_->call(rangeMethod, request, std::move(done));
}

void EtcdClient::transact(const etcd::TxnRequest& request, Done<etcd::TxnResponse> done) {
  impl_->call(txnMethod, request, std::move(done), transactionLimit);
}

void EtcdClient::compact(const etcd::CompactionRequest& request,
                         Done<etcd::CompactionResponse> done) {
  impl_->call(compactMethod, request, std::move(done));
}

void EtcdClient::grant(const etcd::LeaseGrantRequest& request,
                       Done<etcd::LeaseGrantResponse> done) {
  impl_->call(grantMethod, request, std::move(done));
}

void EtcdClient::revoke(const etcd::LeaseRevokeRequest& request,
                        Done<etcd::LeaseRevokeResponse> done) {
  impl_->call(revokeMethod, request, std::move(done), goodbyeLimit);
}

void EtcdClient::status(Done<etcd::StatusResponse> done) {
  impl_->call(statusMethod, etcd::StatusRequest(), std::move(done));
}

std::unique_ptr<EtcdClient::WatchStream> EtcdClient::watch(Done<etcd::WatchResponse> told) {
  return std::make_unique<Impl::UserStream<etcd::WatchRequest, etcd::WatchResponse>>(
      impl_, watchMethod, std::move(told));
}

std::unique_ptr<EtcdClient::KeepAliveStream> EtcdClient::keepAlive(
    Done<etcd::LeaseKeepAliveResponse> told) {
  return std::make_unique<
      Impl::UserStream<etcd::LeaseKeepAliveRequest, etcd::LeaseKeepAliveResponse>>(
      impl_, keepAliveMethod, std::move(told));
}

void EtcdClient::finish(milliseconds most) {
  impl_->finish(most);
}

}  // namespace Korvo::detail
