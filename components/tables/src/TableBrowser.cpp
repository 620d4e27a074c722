#include <Korvo/TableBrowser.h>

#include <system_error>
#include <utility>

#include "PublisherAnswer.h"
#include "TableEngines.h"
#include "UnixSocket.h"

namespace Korvo {

using detail::Frame;
using detail::FrameType;

namespace {

constexpr std::size_t readBytes = 16 * 1024;
constexpr std::size_t turnBytes = 64 * 1024;
/// Asks for no sign of life: there is a limit for the whole.
constexpr std::uint32_t heartbeat = 60000;

}  // namespace

/// A question as a unit.
class TableBrowser::Impl final : public Schedulable,
                                 public std::enable_shared_from_this<Impl>,
                                 private ByteStream::User,
                                 private TableQuestion::User,
                                 private Velto::Platform::TimeoutHandler {
 public:
  Impl(const KoPtr<Scheduler>& scheduler, const Options& options);
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  void ask();
  void end() noexcept;

  std::shared_ptr<ByteConnector> connector;
  std::string engineAddress;  ///< if it is not a connector's
  std::function<void(const PublisherInfo&)> answerTold;
  std::function<void(const std::string&)> failureTold;

 private:
  void streamIsReady() override { runnableIs(true); }
  void answerComes(const PublisherInfo& info) override {
    answer_.info = info;
    isComplete_ = true;
    runnableIs(true);
  }
  void questionFails(const std::string& reason) override {
    failIs(reason);
    runnableIs(true);
  }
  void onTimeout() override;
  void run(bool arg) override;
  void begin();
  void read();
  void write();
  bool take(const Frame& frame);
  void hangUp() noexcept;
  void failIs(const std::string& text);

  const Options options_;
  std::unique_ptr<Velto::Platform::TimerControl> timer_;
  bool isAsked_ = false;
  std::unique_ptr<TableQuestion> question_;
  std::unique_ptr<ByteStream> stream_;
  std::unique_ptr<detail::FrameReader> reader_;
  detail::OutQueue out_;
  detail::AnswerReader answer_;
  bool isWelcome_ = false;
  bool isComplete_ = false;
  std::string failure_;  ///< not empty: it is to be told
  std::string lost_;     ///< why nothing can be sent any more
};

TableBrowser::Impl::Impl(const KoPtr<Scheduler>& scheduler, const Options& options)
    : Schedulable(options.name.empty() && scheduler != nullptr ? scheduler->name() : options.name,
                  scheduler),
      options_(options),
      timer_(scheduler->getTimerControl(this)) {
  if (name().size() > detail::maxText) {
    throw KoInvalidArgument("Name exceeds 255 bytes - (" + name() + ")");
  }
  clientReadyIs(true);
}

void TableBrowser::Impl::ask() {
  hangUp();
  timer_->timeoutIs(options_.patience);
  isAsked_ = true;
  runnableIs(true);
}

void TableBrowser::Impl::end() noexcept {
  hangUp();
  answerTold = nullptr;
  failureTold = nullptr;
  runnableIs(false);
}

void TableBrowser::Impl::hangUp() noexcept {
  if (stream_ != nullptr) stream_->userIs(nullptr);
  question_.reset();
  stream_.reset();
  reader_.reset();
  out_.clear();
  answer_ = {};
  isAsked_ = false;
  isWelcome_ = false;
  isComplete_ = false;
  failure_.clear();
  lost_.clear();
  timer_->cancel();
}

void TableBrowser::Impl::failIs(const std::string& text) {
  if (failure_.empty()) failure_ = text;
}

void TableBrowser::Impl::onTimeout() {
  const auto seconds = options_.patience.count() / 1000;
  failIs("no answer for " + std::to_string(seconds) + (seconds == 1 ? " second" : " seconds"));
  runnableIs(true);
}

void TableBrowser::Impl::begin() {
  if (connector == nullptr) {
    question_ = detail::engineFor(engineAddress)->ask(engineAddress, scheduler(), *this);
    return;
  }
  stream_ = connector->connect();
  reader_ = std::make_unique<detail::FrameReader>();
  stream_->userIs(this);
  detail::Hello hello;
  hello.features = detail::featureAsk;
  hello.heartbeat = heartbeat;
  hello.name = name();
  out_.push(hello.encode());
}

void TableBrowser::Impl::run(bool) {
  const std::shared_ptr<Impl> kept = shared_from_this();
  try {
    if (std::exchange(isAsked_, false)) begin();
    if (stream_ != nullptr) read();
    if (!lost_.empty()) failIs(lost_);  // it had nothing to say before
    if (stream_ != nullptr) write();
  } catch (const std::system_error& error) {
    failIs(error.what());
  } catch (const detail::ProtocolError& error) {
    failIs(std::string("not understood: ") + error.what());
  } catch (const KoBaseException& error) {
    failIs(error.what());
  } catch (const std::bad_alloc&) {
    failIs("no memory");
  }
  if (isComplete_) {
    if (stream_ != nullptr) {
      out_.push(detail::Bye{detail::ByeReason::closing, "all was told"}.encode());
      write();
    }
    const PublisherInfo info = std::move(answer_.info);
    const auto told = answerTold;
    hangUp();
    if (told) told(info);
  } else if (!failure_.empty()) {
    const std::string text = std::move(failure_);
    const auto told = failureTold;
    hangUp();
    if (told) told(text);
  }
}

void TableBrowser::Impl::read() {
  byte_t bytes[readBytes];
  for (std::size_t count = 0; count < turnBytes;) {
    const ByteStream::Result result = stream_->read(bytes, sizeof bytes);
    reader_->feed({bytes, result.count}, [this](const Frame& frame) { return take(frame); });
    if (isComplete_ || !failure_.empty()) return;
    if (!result.isOpen) return failIs(result.reason);
    count += result.count;
    if (result.count < sizeof bytes) return;
  }
  runnableIs(true);
}

void TableBrowser::Impl::write() {
  while (!out_.empty()) {
    const ByteStream::Result result = detail::writeTo(*stream_, out_.next(turnBytes));
    out_.sent(result.count);
    if (!result.isOpen) {  // what it had to say may still be there to be read
      lost_ = result.reason;
      runnableIs(true);
    }
    if (result.count == 0) return;
  }
}

/// False: nothing else is wanted.
bool TableBrowser::Impl::take(const Frame& frame) {
  if (frame.is(FrameType::bye)) {
    failIs("the publisher ended: " + detail::Bye::decode(frame.body).text);
    return false;
  }
  if (isWelcome_) {
    isComplete_ = answer_.take(frame);
    return !isComplete_;
  }
  if (!frame.is(FrameType::welcome)) throw detail::ProtocolError("no WELCOME");
  const detail::Welcome welcome = detail::Welcome::decode(frame.body);
  isWelcome_ = true;
  answer_.info.name = welcome.name;
  if ((welcome.features & detail::featureAsk) == 0) {
    failIs(welcome.name + " is of a version that does not tell what it has");
    return false;
  }
  out_.push(detail::FrameWriter(FrameType::ask).take());
  return true;
}

// ---------------------------------------------------------------------------------------------

TableBrowser::TableBrowser(const std::string& address, const KoPtr<Scheduler>& scheduler,
                           const Options& options)
    : TableBrowser(scheduler, options) {
  TableEngine::checkAddress(address);
  if (detail::isSocketAddress(address)) {
    connect(detail::connectorTo(address, scheduler));
  } else {
    impl_->engineAddress = address;
  }
}

TableBrowser::TableBrowser(const KoPtr<Scheduler>& scheduler, const Options& options)
    : impl_(std::make_shared<Impl>(scheduler, options)) {}

TableBrowser::~TableBrowser() {
  impl_->end();
}

void TableBrowser::connect(std::shared_ptr<ByteConnector> connector) {
  impl_->connector = std::move(connector);
}

void TableBrowser::ask() {
  if (impl_->connector == nullptr && impl_->engineAddress.empty())
    throw KoInvalidArgument("Nowhere to ask");
  impl_->ask();
}

void TableBrowser::onAnswer(std::function<void(const PublisherInfo& info)> told) {
  impl_->answerTold = std::move(told);
}

void TableBrowser::onFailure(std::function<void(const std::string& text)> told) {
  impl_->failureTold = std::move(told);
}

}  // namespace Korvo
