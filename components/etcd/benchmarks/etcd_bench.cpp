// What tables on etcd cost, beside bare clients that do the same without a library: on one server,
// and on three.
//
//   etcd_bench [ROWS] [SERVERS]     100,000 rows unless told otherwise; without SERVERS both
//
// Publisher, copies and servers are processes of their own, and all of them share the machine. Data
// folders are below /tmp. Times are those of the clock: they depend on the disk, whose time for a
// sync is shown, and on what else the machine does.

#include <Korvo/EtcdTables.h>
#include <grpcpp/generic/generic_stub.h>
#include <grpcpp/grpcpp.h>
#include <grpcpp/impl/codegen/proto_utils.h>
#include <malloc.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <iostream>
#include <unordered_map>

#include "etcd.pb.h"
#include "etcd_test_support.h"

namespace {

using namespace etcdtest;
namespace wire = Korvo::etcd;
using Seconds = std::chrono::duration<double>;

struct EntryLayout
    : Korvo::RowLayout<9, Korvo::Column<"number", std::uint64_t>,
                       Korvo::Column<"sent", std::int64_t>, Korvo::Column<"name", std::string>,
                       Korvo::Column<"net", Korvo::IpGenPrefix>> {};
using Entry = Korvo::TableRow<EntryLayout>;

constexpr const char* tableName = "net/entry";
constexpr oid_t operationsOfTransaction = 4000;
constexpr int putsUnderWay = 64;
/// Its number asks copies for a report.
constexpr oid_t reportOid = 0xF0000000;

std::int64_t now() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             steady_clock::now().time_since_epoch())
      .count();
}

Entry entry(oid_t oid, std::uint64_t number, std::int64_t sent = 0) {
  Entry row;
  row.create(oid);
  row.set<"number">(number);
  row.set<"sent">(sent);
  row.set<"name">("interface" + std::to_string(oid));
  row.set<"net">(Korvo::IpGenPrefix("10.0.0.0/8"));
  return row;
}

void putAll(Table<Entry>& entries, oid_t rows, std::uint64_t number) {
  Batch batch(entries);
  for (oid_t oid = 1; oid <= rows; ++oid) batch.put(entry(oid, number));
  batch.commit();
}

/// A line of /proc/self/status, in mebibytes.
double memory(const std::string& name) {
  std::ifstream in("/proc/self/status");
  for (std::string line; std::getline(in, line);) {
    if (line.rfind(name + ':', 0) == 0) return std::stod(line.substr(name.size() + 1)) / 1024;
  }
  return 0;
}
double memoryNow() {
  malloc_trim(0);
  return memory("VmRSS");
}
/// From here on the most is counted anew.
void forgetMost() {
  std::ofstream("/proc/self/clear_refs") << 5;
}

/// How long it takes to sync a small write where the servers' data are.
double syncTime() {
  const Folder folder;
  const int file = open(folder.file("sync").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  std::vector<double> times;
  const std::string bytes(4096, 'x');
  for (int i = 0; i < 50; ++i) {
    const auto start = steady_clock::now();
    if (write(file, bytes.data(), bytes.size()) < 0 || fdatasync(file) != 0) break;
    times.push_back(Seconds(steady_clock::now() - start).count() * 1000);
  }
  close(file);
  std::sort(times.begin(), times.end());
  return times.empty() ? 0 : times[times.size() / 2];
}

// ---------------------------------------------------------------------------------------------
// Clients without a library

class BareClient {
 public:
  explicit BareClient(const std::string& member) {
    grpc::ChannelArguments arguments;
    arguments.SetMaxReceiveMessageSize(-1);
    arguments.SetInt(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1);
    arguments.SetInt(GRPC_ARG_INITIAL_RECONNECT_BACKOFF_MS, 100);
    channel_ = grpc::CreateCustomChannel(member, grpc::InsecureChannelCredentials(), arguments);
  }

  /// One call, until its answer has come.
  template <typename Response, typename Request>
  Response call(const std::string& method, const Request& request,
                milliseconds limit = std::chrono::seconds(20)) {
    begin<Response>(method, request, limit);
    const std::unique_ptr<Call<Response>> done = next<Response>();
    if (!done->status.ok()) throw std::runtime_error(done->status.error_message());
    return std::move(done->response);
  }

  /// Several calls at once: begin them, and take those that are done.
  template <typename Response>
  struct Call {
    grpc::ClientContext context;
    std::unique_ptr<grpc::ClientAsyncResponseReader<Response>> reader;
    Response response;
    grpc::Status status;
  };
  template <typename Response, typename Request>
  void begin(const std::string& method, const Request& request, milliseconds limit) {
    auto call = std::make_unique<Call<Response>>();
    call->context.set_deadline(std::chrono::system_clock::now() + limit);
    grpc::TemplatedGenericStub<Request, Response> stub(channel_);
    call->reader = stub.PrepareUnaryCall(&call->context, method, request, &queue_);
    call->reader->StartCall();
    Call<Response>* const begun = call.release();
    begun->reader->Finish(&begun->response, &begun->status, begun);
  }
  template <typename Response>
  std::unique_ptr<Call<Response>> next() {
    void* tag = nullptr;
    bool ok = false;
    queue_.Next(&tag, &ok);
    return std::unique_ptr<Call<Response>>(static_cast<Call<Response>*>(tag));
  }

 private:
  std::shared_ptr<grpc::Channel> channel_;
  grpc::CompletionQueue queue_;
};

constexpr const char* txn = "/etcdserverpb.KV/Txn";
constexpr const char* put = "/etcdserverpb.KV/Put";
constexpr const char* range = "/etcdserverpb.KV/Range";

std::string bareKey(oid_t oid) {
  char key[32];
  std::snprintf(key, sizeof key, "bare/row/%08x", oid);
  return key;
}

wire::PutRequest barePut(oid_t oid, const Entry& row) {
  wire::PutRequest request;
  request.set_key(bareKey(oid));
  request.set_value(row.rowBuf(), row.rowLength());
  return request;
}

double bareWrite(const std::string& member, oid_t rows) {
  BareClient client(member);
  std::vector<Entry> all;
  for (oid_t oid = 1; oid <= rows; ++oid) all.push_back(entry(oid, 1));
  const auto start = steady_clock::now();
  for (oid_t first = 0; first < rows; first += operationsOfTransaction) {
    wire::TxnRequest request;
    for (oid_t i = first; i < std::min(rows, first + operationsOfTransaction); ++i) {
      *request.add_success()->mutable_request_put() = barePut(i + 1, all[i]);
    }
    client.call<wire::TxnResponse>(txn, request);
  }
  return rows / Seconds(steady_clock::now() - start).count();
}

double bareRead(const std::string& member, oid_t rows) {
  BareClient client(member);
  const auto start = steady_clock::now();
  oid_t count = 0;
  for (oid_t first = 0; first <= rows; first += 8192) {
    wire::RangeRequest request;
    request.set_key(bareKey(first));
    request.set_range_end(bareKey(first + 8192));
    count += static_cast<oid_t>(client.call<wire::RangeResponse>(range, request).kvs_size());
  }
  if (count != rows) throw std::runtime_error("rows are missing");
  return rows / Seconds(steady_clock::now() - start).count();
}

/// One row a put, as etcd's own benchmark writes, several at a time.
double barePuts(const std::string& member, Seconds time) {
  BareClient client(member);
  const Entry row = entry(1, 1);
  const auto start = steady_clock::now();
  oid_t begun = 0;
  oid_t ended = 0;
  while (begun != ended || steady_clock::now() - start < time) {
    while (begun - ended < putsUnderWay && steady_clock::now() - start < time) {
      client.begin<wire::PutResponse>(put, barePut(++begun % 1000, row), std::chrono::seconds(20));
    }
    if (begun == ended) break;
    if (!client.next<wire::PutResponse>()->status.ok()) throw std::runtime_error("a put failed");
    ++ended;
  }
  return ended / Seconds(steady_clock::now() - start).count();
}

/// Puts one row after the other, of one member after the other where one fails: for how long there
/// is nobody who takes it.
class BareService {
 public:
  BareService(const Cluster& cluster, int without) {
    for (int i = 0; i < cluster.size(); ++i) {
      if (i != without) clients_.push_back(std::make_unique<BareClient>(cluster.member(i)));
    }
    thread_ = std::thread([this] { work(); });
  }
  BareService(const BareService&) = delete;
  BareService& operator=(const BareService&) = delete;
  /// The longest time between two that were taken.
  double longest() {
    isOver_ = true;
    if (thread_.joinable()) thread_.join();
    return longest_;
  }
  ~BareService() { longest(); }

 private:
  void work() {
    auto last = steady_clock::now();
    for (std::size_t i = 0; !isOver_;) {
      try {
        clients_[i]->call<wire::PutResponse>(put, barePut(1, entry(1, 1)), milliseconds(200));
        longest_ = std::max(longest_, Seconds(steady_clock::now() - last).count());
        last = steady_clock::now();
        std::this_thread::sleep_for(milliseconds(5));
      } catch (const std::runtime_error&) {
        i = (i + 1) % clients_.size();
      }
    }
  }

  std::vector<std::unique_ptr<BareClient>> clients_;
  std::atomic<bool> isOver_ = false;
  double longest_ = 0;
  std::thread thread_;
};

// ---------------------------------------------------------------------------------------------
// Processes of their own

/// A table alone: what its rows take.
int tableProcess(oid_t rows) {
  const double before = memoryNow();
  Table<Entry> entries(tableName);
  // Not in one batch, which would leave its own room behind.
  for (oid_t oid = 1; oid <= rows; ++oid) {
    Batch batch(entries);
    batch.put(entry(oid, 1));
    batch.commit();
  }
  std::cout << "table " << memoryNow() - before << std::endl;
  return 0;
}

/// A publisher that comes back with rows that are there.
int publisherProcess(const std::string& address, oid_t rows) {
  const auto loop = std::make_shared<EventLoop>("agent");
  Table<Entry> entries(tableName);
  TablePublisher publisher("agent", loop);
  publisher.add(entries);
  for (oid_t oid = 1; oid <= rows; ++oid) {
    Batch batch(entries);
    batch.put(entry(oid, 1));
    batch.commit();
  }
  const double before = memoryNow();
  forgetMost();
  publisher.listen(address);
  const auto start = steady_clock::now();
  while (publisher.subscribers().at(0).lag != 0) loop->run(0, 0.01, false);
  std::cout << "publisher " << Seconds(steady_clock::now() - start).count() << ' '
            << memory("VmHWM") - before << std::endl;
  return 0;
}

/// A copy that tells how soon it is current, and at each report what it was told since the last:
/// how many changes, how many of them again, how late, and the longest time without any.
int copyProcess(const std::string& address) {
  const double before = memoryNow();
  forgetMost();
  Table<Entry> entries(tableName);
  const auto loop = std::make_shared<EventLoop>("copy");
  const auto start = steady_clock::now();
  TableSubscriber subscriber(address, loop);
  subscriber.add(entries);
  std::unordered_map<std::uint64_t, int> told;
  std::vector<double> times;
  std::uint64_t again = 0;
  double longest = 0;
  std::int64_t last = 0;
  TableReader<Entry> reader(entries, loop, [&](const Korvo::Changes<Entry>& news) {
    if (news.first()) return;
    const std::int64_t came = now();
    for (const auto& change : news) {
      const Entry& row = change.after();
      if (row.isNull()) continue;
      if (row.rowOid() == reportOid) {
        std::sort(times.begin(), times.end());
        const auto part = [&](std::size_t of) {
          return times.empty() ? 0 : times[times.size() * of / 100];
        };
        std::cout << "report " << row.get<"number">() << ' ' << told.size() << ' ' << again << ' '
                  << part(50) << ' ' << part(99) << ' ' << longest << ' ' << entries.size() << ' '
                  << memory("VmHWM") - before << ' ' << memoryNow() - before << std::endl;
        told.clear();
        times.clear();
        again = 0;
        longest = 0;
        last = 0;
        forgetMost();
        continue;
      }
      if (row.get<"sent">() == 0) continue;
      if (!told.try_emplace(row.get<"number">()).second) ++again;
      times.push_back(double(came - row.get<"sent">()) / 1e6);
      if (last != 0) longest = std::max(longest, double(came - last) / 1e9);
      last = came;
    }
  });
  while (entries.state() != TableState::current) loop->run(0, 0.01, false);
  std::cout << "current " << Seconds(steady_clock::now() - start).count() << ' ' << entries.size()
            << ' ' << memory("VmHWM") - before << ' ' << memoryNow() - before << std::endl;
  loop->run(0, 600, false);
  return 0;
}

/// This program with other words, and what it says.
class Process {
 public:
  Process(const Folder& folder, std::vector<std::string> words)
      : log_(folder.file(words[0] + std::to_string(++number))) {
    words.insert(words.begin(), "/proc/self/exe");
    program_ = std::make_unique<Program>(words, log_);
  }
  void signal(int which) const { program_->signal(which); }
  /// The numbers of the next line that begins so.
  std::vector<double> numbers(const std::string& begin, const std::function<void()>& meanwhile) {
    const auto end = steady_clock::now() + std::chrono::seconds(60);
    while (steady_clock::now() < end) {
      std::ifstream in(log_);
      for (std::string line; std::getline(in, line);) {
        if (in.eof() || line.rfind(begin, 0) != 0) continue;
        std::istringstream words(line.substr(begin.size()));
        return {std::istream_iterator<double>(words), {}};
      }
      meanwhile();
    }
    throw std::runtime_error("nothing was heard of " + begin);
  }

 private:
  static inline int number = 0;
  std::string log_;
  std::unique_ptr<Program> program_;
};

// ---------------------------------------------------------------------------------------------

class Run {
 public:
  Run(int members, oid_t rows)
      : rows_(rows),
        changes_(rows < 10000 ? 1000 : 5000),
        cluster_(members, {"--max-txn-ops", "10000", "--quota-backend-bytes", "8000000000",
                           "--snapshot-count", "10000"}) {
    cluster_.waitUntilReady();
  }

  void measure() {
    std::printf("%d server%s, %u rows of %u bytes\n", cluster_.size(),
                cluster_.size() == 1 ? "" : "s", rows_, unsigned{entry(rows_, 1).rowLength()});
    const double written = bareWrite(cluster_.member(0), rows_);
    const double read = bareRead(cluster_.member(0), rows_);
    const double puts = barePuts(cluster_.member(0), Seconds(rows_ > 10000 ? 2 : 0.2));
    Process alone(folder_, {"table", std::to_string(rows_)});
    table_ = alone.numbers("table", [] { std::this_thread::sleep_for(milliseconds(1)); })[0];

    publisher_.add(entries_);
    publisher_.listen(cluster_.address());
    putAll(entries_, rows_, 1);
    const auto start = steady_clock::now();
    untilWritten();
    std::printf("  rows written a second      %9.0f   bare client %9.0f, by single puts %9.0f\n",
                rows_ / Seconds(steady_clock::now() - start).count(), written, puts);

    Process copy(folder_, {"copy", cluster_.address()});
    const auto first = copy.numbers("current", [this] { turn(); });
    std::printf("  snapshot, rows a second    %9.0f   bare client %9.0f\n", rows_ / first[0], read);

    change("a change at 1,000 a second", copy, [] {});
    if (cluster_.size() > 1) kill(copy);
    slowCopy(copy, first);
  }

 private:
  void turn() { loop_->run(0, 0.0005, false); }
  /// The last batch that is written.
  std::uint64_t written() const {
    return publisher_.sequence() - publisher_.subscribers().at(0).lag;
  }
  bool isWritten() const { return written() == publisher_.sequence(); }
  void untilWritten() {
    while (!isWritten()) turn();
  }

  std::vector<double> report(Process& copy) {
    Batch batch(entries_);
    batch.put(entry(reportOid, ++reports_));
    batch.commit();
    return copy.numbers("report " + std::to_string(reports_) + ' ', [this] { turn(); });
  }

  /// A thousand new rows a second, each a batch.
  std::vector<double> change(const std::string& what, Process& copy,
                             const std::function<void()>& inBetween, double* longest = nullptr) {
    report(copy);
    const auto begin = steady_clock::now();
    auto last = begin;
    std::uint64_t written = 0;
    for (oid_t i = 0; i < changes_; ++i) {
      const auto due = begin + i * milliseconds(1);
      do {
        turn();
        if (longest == nullptr || std::exchange(written, this->written()) == this->written())
          continue;
        *longest = std::max(*longest, Seconds(steady_clock::now() - last).count());
        last = steady_clock::now();
      } while (steady_clock::now() < due);
      if (i == changes_ / 5) inBetween();
      Batch batch(entries_);
      ++made_;
      batch.put(entry(rows_ + made_, made_, now()));
      batch.commit();
    }
    untilWritten();
    const auto told = report(copy);
    std::printf("  %-26s %9.2f ms (median), %.2f ms (99 of 100); %.0f lost, %.0f repeated of %u\n",
                what.c_str(), told[2], told[3], changes_ - told[0], told[1], changes_);
    return told;
  }

  void kill(Process& copy) {
    const int leader = cluster_.leader();
    BareService service(cluster_, leader);
    double longest = 0;
    const auto told = change(
        "with the leader killed", copy, [&] { cluster_.kill(leader); }, &longest);
    std::printf(
        "  without service            %9.2f s (publisher), %.2f s (copy); etcd itself %.2f s\n",
        longest, told[4], service.longest());
  }

  /// A copy is held up while all rows change, twice.
  void slowCopy(Process& copy, const std::vector<double>& first) {
    copy.signal(SIGSTOP);
    for (std::uint64_t number = 2; number <= 3; ++number) {
      putAll(entries_, rows_, number);
      untilWritten();
    }
    copy.signal(SIGCONT);
    const auto behind = report(copy);
    if (behind[5] != double(entries_.size())) throw std::runtime_error("rows are missing");
    std::printf(
        "  memory of a copy, MiB      %9.1f (table alone %.1f); most while it loads %.1f, while it "
        "catches up with all rows %.1f\n",
        first[3], table_, first[2], behind[6]);
  }

  const oid_t rows_;
  const oid_t changes_;
  Cluster cluster_;
  Folder folder_;
  double table_ = 0;
  oid_t made_ = 0;
  std::uint64_t reports_ = 0;
  std::shared_ptr<EventLoop> loop_ = std::make_shared<EventLoop>("agent");
  Table<Entry> entries_{tableName};
  TablePublisher publisher_{"agent", loop_};
};

void restartedPublisher(oid_t rows) {
  Cluster cluster(1, {"--max-txn-ops", "10000", "--quota-backend-bytes", "8000000000"});
  cluster.waitUntilReady();
  Folder folder;
  const auto nothing = [] { std::this_thread::sleep_for(milliseconds(1)); };
  const auto once = [&] {
    return Process(folder, {"publisher", cluster.address(), std::to_string(rows)})
        .numbers("publisher", nothing);
  };
  const auto first = once();
  // Its lease has to end, unless it said goodbye.
  const auto second = once();
  std::printf("  a publisher, MiB beside its table: %.1f (first rows), %.1f (comes back)\n",
              first[1], second[1]);
}

}  // namespace

int main(int count, char** arguments) try {
  const std::vector<std::string> words(arguments + 1, arguments + count);
  Korvo::EtcdEngine::add();
  if (words.size() == 2 && words[0] == "table") {
    return tableProcess(static_cast<oid_t>(std::stoul(words[1])));
  }
  if (words.size() == 3 && words[0] == "publisher") {
    return publisherProcess(words[1], static_cast<oid_t>(std::stoul(words[2])));
  }
  if (words.size() == 2 && words[0] == "copy") return copyProcess(words[1]);

  const auto rows = static_cast<oid_t>(words.empty() ? 100000 : std::stoul(words[0]));
  std::printf("a sync of the disk takes %.2f ms\n", syncTime());
  for (const int servers : {1, 3}) {
    if (words.size() > 1 && words[1] != std::to_string(servers)) continue;
    Run(servers, rows).measure();
    if (servers == 1) restartedPublisher(rows);
  }
} catch (const std::exception& error) {
  std::cerr << "etcd_bench: " << error.what() << '\n';
  return 1;
}
