#include <Korvo/TestLink.h>

#include <algorithm>
#include <cerrno>
#include <deque>
#include <limits>
#include <optional>
#include <system_error>
#include <utility>

namespace Korvo {

namespace {

constexpr std::size_t noLimit = std::numeric_limits<std::size_t>::max();

/// The bytes on their way to one end.
struct Way {
  std::deque<char> bytes;
  ByteStream::User* reader = nullptr;
  ByteStream::User* writer = nullptr;
  bool isBlocked = false;  ///< the writer waits for room
  bool hasReader = true;
  bool hasWriter = true;
};

/// What is set for one direction, and counted.
struct Direction {
  std::size_t room = 65536;
  std::optional<std::uint64_t> cutAfter;
  std::uint64_t arrived = 0;
};

void tell(ByteStream::User* user) {
  if (user != nullptr) user->streamIsReady();
}

}  // namespace

struct TestLink::State : std::enable_shared_from_this<State> {
  class Stream;
  class Listener;
  class Connector;

  struct Connection {
    Way toSubscriber;
    Way toPublisher;
    bool isCut = false;

    void cut() {
      if (std::exchange(isCut, true)) return;
      for (const Way* way : {&toSubscriber, &toPublisher}) {
        tell(way->reader);
      }
    }
  };

  std::unique_ptr<ByteStream> connect();

  Direction toSubscriber;
  Direction toPublisher;
  std::size_t piece = noLimit;
  bool isDown = false;
  std::optional<uid_t> peerUser;
  std::uint64_t connections = 0;
  std::weak_ptr<Connection> present;
  ByteListener::Taker taker;
  std::shared_ptr<ByteListener> publisherEnd;
  std::shared_ptr<ByteConnector> subscriberEnd;
};

class TestLink::State::Stream final : public ByteStream {
 public:
  Stream(std::shared_ptr<State> state, std::shared_ptr<Connection> connection, bool isSubscriber)
      : state_(std::move(state)), connection_(std::move(connection)), isSubscriber_(isSubscriber) {}
  Stream(const Stream&) = delete;
  Stream& operator=(const Stream&) = delete;
  ~Stream() override {
    in().reader = nullptr;
    in().hasReader = false;
    out().writer = nullptr;
    out().hasWriter = false;
    tell(out().reader);
    tell(in().writer);
  }

  void userIs(User* user) override {
    in().reader = user;
    out().writer = user;
    if (!in().bytes.empty()) tell(user);
  }

  Result read(void* to, std::size_t most) override {
    if (connection_->isCut) return {0, false, "the link was cut"};
    std::deque<char>& bytes = in().bytes;
    Direction& direction = isSubscriber_ ? state_->toSubscriber : state_->toPublisher;
    most = std::min({most, state_->piece, bytes.size()});
    if (direction.cutAfter) {
      most = static_cast<std::size_t>(std::min<std::uint64_t>(most, *direction.cutAfter));
      *direction.cutAfter -= most;
    }
    const auto end = bytes.begin() + static_cast<std::ptrdiff_t>(most);
    std::copy(bytes.begin(), end, static_cast<char*>(to));
    bytes.erase(bytes.begin(), end);
    direction.arrived += most;
    if (direction.cutAfter && *direction.cutAfter == 0) {
      direction.cutAfter.reset();
      connection_->cut();
      return {most, true, ""};
    }
    if (most != 0 && std::exchange(in().isBlocked, false)) tell(in().writer);
    if (!bytes.empty() && most != 0) tell(in().reader);
    if (most == 0 && !in().hasWriter) return {0, false, "the other end closed the link"};
    if (bytes.empty() && !in().hasWriter) tell(in().reader);
    return {most, true, ""};
  }

  std::optional<uid_t> peerUser() const override {
    return isSubscriber_ ? std::nullopt : state_->peerUser;
  }

  Result write(const iovec* parts, int count) override {
    if (connection_->isCut) return {0, false, "the link was cut"};
    if (!out().hasReader) return {0, false, "the other end closed the link"};
    const Direction& direction = isSubscriber_ ? state_->toPublisher : state_->toSubscriber;
    std::size_t written = 0;
    for (int i = 0; i < count; ++i) {
      const std::size_t taken = out().bytes.size();
      const std::size_t room = direction.room > taken ? direction.room - taken : 0;
      const std::size_t length = std::min(parts[i].iov_len, room);
      const auto* const from = static_cast<const char*>(parts[i].iov_base);
      out().bytes.insert(out().bytes.end(), from, from + length);
      written += length;
      if (length == parts[i].iov_len) continue;
      out().isBlocked = true;
      break;
    }
    if (written != 0) tell(out().reader);
    return {written, true, ""};
  }

 private:
  Way& in() const { return isSubscriber_ ? connection_->toSubscriber : connection_->toPublisher; }
  Way& out() const { return isSubscriber_ ? connection_->toPublisher : connection_->toSubscriber; }

  std::shared_ptr<State> state_;
  std::shared_ptr<Connection> connection_;
  bool isSubscriber_;
};

class TestLink::State::Listener final : public ByteListener {
 public:
  explicit Listener(std::weak_ptr<State> state) : state_(std::move(state)) {}
  void takerIs(Taker given) override {
    if (const auto state = state_.lock()) state->taker = std::move(given);
  }

 private:
  std::weak_ptr<State> state_;
};

class TestLink::State::Connector final : public ByteConnector {
 public:
  explicit Connector(std::weak_ptr<State> state) : state_(std::move(state)) {}
  std::unique_ptr<ByteStream> connect() override {
    const auto state = state_.lock();
    if (state == nullptr || state->isDown || !state->taker) {
      throw std::system_error(ECONNREFUSED, std::generic_category(), "TestLink");
    }
    return state->connect();
  }

 private:
  std::weak_ptr<State> state_;
};

std::unique_ptr<ByteStream> TestLink::State::connect() {
  const auto connection = std::make_shared<Connection>();
  auto end = std::make_unique<Stream>(shared_from_this(), connection, true);
  taker(std::make_unique<Stream>(shared_from_this(), connection, false));
  present = connection;
  ++connections;
  return end;
}

TestLink::TestLink() : state_(std::make_shared<State>()) {
  state_->publisherEnd = std::make_shared<State::Listener>(state_);
  state_->subscriberEnd = std::make_shared<State::Connector>(state_);
}

TestLink::~TestLink() {
  state_->taker = nullptr;
}

const std::shared_ptr<ByteListener>& TestLink::publisherEnd() const {
  return state_->publisherEnd;
}

const std::shared_ptr<ByteConnector>& TestLink::subscriberEnd() const {
  return state_->subscriberEnd;
}

void TestLink::roomIs(std::size_t bytes) {
  state_->toSubscriber.room = bytes;
  const auto present = state_->present.lock();
  if (present == nullptr || bytes == 0) return;
  if (std::exchange(present->toSubscriber.isBlocked, false)) tell(present->toSubscriber.writer);
}

void TestLink::pieceIs(std::size_t bytes) {
  state_->piece = std::max<std::size_t>(bytes, 1);
}

void TestLink::cutAfter(std::uint64_t bytes) {
  state_->toSubscriber.cutAfter = bytes;
  if (bytes != 0) return;
  state_->toSubscriber.cutAfter.reset();
  cut();
}

void TestLink::cutAfterToPublisher(std::uint64_t bytes) {
  state_->toPublisher.cutAfter = bytes;
  if (bytes != 0) return;
  state_->toPublisher.cutAfter.reset();
  cut();
}

void TestLink::cut() {
  if (const auto present = state_->present.lock()) present->cut();
}

void TestLink::peerUserIs(std::optional<uid_t> user) {
  state_->peerUser = user;
}

void TestLink::isDownIs(bool isDown) {
  state_->isDown = isDown;
}

bool TestLink::isConnected() const {
  const auto present = state_->present.lock();
  return present != nullptr && !present->isCut;
}

std::uint64_t TestLink::connections() const {
  return state_->connections;
}

std::uint64_t TestLink::bytesToSubscriber() const {
  return state_->toSubscriber.arrived;
}

std::uint64_t TestLink::bytesToPublisher() const {
  return state_->toPublisher.arrived;
}

}  // namespace Korvo
