// What tables on etcd cost, beside a bare client that does the same with blocking calls:
//
//   etcd_bench [ROWS]      100,000 rows unless told otherwise; on one server and on three
//
// One run: times depend on the disk, and on what else the machine does.

#include <Korvo/EtcdTables.h>
#include <grpcpp/generic/generic_stub.h>
#include <grpcpp/grpcpp.h>
#include <grpcpp/impl/codegen/proto_utils.h>

#include <algorithm>
#include <cstdio>
#include <iostream>

#include "etcd.pb.h"
#include "etcd_test_support.h"

namespace {

using namespace etcdtest;
namespace wire = Korvo::etcd;
using Seconds = std::chrono::duration<double>;

constexpr oid_t operationsOfTransaction = 4000;

Port rowOf(oid_t oid, int speed) {
  return port(oid, "interface" + std::to_string(oid), speed, "10.0.0.0/8");
}

/// Blocking calls, one after the other.
class BareClient {
 public:
  explicit BareClient(const std::string& member) {
    grpc::ChannelArguments arguments;
    arguments.SetMaxReceiveMessageSize(-1);
    channel_ = grpc::CreateCustomChannel(member, grpc::InsecureChannelCredentials(), arguments);
  }

  template <typename Response, typename Request>
  Response call(const std::string& method, const Request& request) {
    grpc::ClientContext context;
    grpc::CompletionQueue queue;
    grpc::TemplatedGenericStub<Request, Response> stub(channel_);
    const auto reader = stub.PrepareUnaryCall(&context, method, request, &queue);
    reader->StartCall();
    Response response;
    grpc::Status status;
    reader->Finish(&response, &status, nullptr);
    void* tag = nullptr;
    bool ok = false;
    queue.Next(&tag, &ok);
    if (!status.ok()) throw std::runtime_error(status.error_message());
    return response;
  }

 private:
  std::shared_ptr<grpc::Channel> channel_;
};

std::string bareKey(oid_t oid) {
  char key[32];
  std::snprintf(key, sizeof key, "bare/row/%08x", oid);
  return key;
}

double bareWrite(const std::string& member, oid_t rows) {
  BareClient client(member);
  std::vector<Port> all;
  for (oid_t oid = 1; oid <= rows; ++oid) all.push_back(rowOf(oid, 1));
  const auto start = steady_clock::now();
  for (oid_t first = 0; first < rows; first += operationsOfTransaction) {
    wire::TxnRequest request;
    for (oid_t i = first; i < std::min(rows, first + operationsOfTransaction); ++i) {
      wire::PutRequest& put = *request.add_success()->mutable_request_put();
      put.set_key(bareKey(i + 1));
      put.set_value(all[i].rowBuf(), all[i].rowLength());
    }
    client.call<wire::TxnResponse>("/etcdserverpb.KV/Txn", request);
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
    count += static_cast<oid_t>(
        client.call<wire::RangeResponse>("/etcdserverpb.KV/Range", request).kvs_size());
  }
  if (count != rows) throw std::runtime_error("rows are missing");
  return rows / Seconds(steady_clock::now() - start).count();
}

void measure(int members, oid_t rows) {
  Cluster cluster(members, {"--max-txn-ops", "10000", "--quota-backend-bytes", "8000000000"});
  cluster.waitUntilReady();
  const double written = bareWrite(cluster.member(0), rows);
  const double read = bareRead(cluster.member(0), rows);

  Publisher publisher(cluster.address());
  Batch batch(publisher.ports);
  for (oid_t oid = 1; oid <= rows; ++oid) batch.put(rowOf(oid, 1));
  batch.commit();
  auto start = steady_clock::now();
  const auto isWritten = [&] { return publisher.publisher.subscribers().at(0).lag == 0; };
  while (!isWritten()) publisher.loop->run(0, 0.01, false);
  const double published = rows / Seconds(steady_clock::now() - start).count();

  Copy copy(cluster.address());
  start = steady_clock::now();
  while (!copy.isCurrent()) copy.loop->run(0, 0.01, false);
  const double copied = rows / Seconds(steady_clock::now() - start).count();

  // A thousand changes a second, told to another thread's copy.
  std::vector<double> times;
  {
    std::atomic<bool> isOver = false;
    std::atomic<std::int64_t> base = steady_clock::now().time_since_epoch().count();
    std::thread other([&] {
      Table<Port> ports("net/port");
      const auto loop = std::make_shared<EventLoop>("other");
      TableSubscriber subscriber(cluster.address(), loop);
      subscriber.add(ports);
      TableReader<Port> reader(ports, loop, [&](const Korvo::Changes<Port>& changes) {
        if (changes.first()) return;
        const auto now = steady_clock::now().time_since_epoch().count();
        for (const auto& change : changes) {
          const std::int64_t sent = base + std::int64_t{change.after().get<"speed">()} * 1000;
          if (change.after().get<"speed">() > 1) times.push_back(double(now - sent) / 1e6);
        }
      });
      while (!isOver) loop->run(0, 0.01, false);
    });
    const auto begin = steady_clock::now();
    for (int i = 0; i < 6000; ++i) {
      const auto due = begin + i * std::chrono::milliseconds(1);
      while (steady_clock::now() < due) publisher.loop->run(0, 0.0005, false);
      const auto now = steady_clock::now().time_since_epoch().count();
      if (i == 2000) base = now;  // rows were read by now
      if (i < 2000) continue;
      publisher.put(
          {rowOf(static_cast<oid_t>(i % 500 + 1), static_cast<int>((now - base) / 1000) + 2)});
    }
    while (!isWritten()) publisher.loop->run(0, 0.001, false);
    runFor(milliseconds(200), publisher);
    isOver = true;
    other.join();
  }
  std::sort(times.begin(), times.end());

  double outage = 0;
  if (members > 1) {
    // The longest time between two states that are written while the leader is killed.
    auto last = steady_clock::now();
    const auto end = last + std::chrono::seconds(8);
    bool isKilled = false;
    for (int i = 0; steady_clock::now() < end; ++i) {
      if (!isKilled && steady_clock::now() > end - std::chrono::seconds(7)) {
        cluster.kill(cluster.leader());
        last = steady_clock::now();
        isKilled = true;
      }
      publisher.put({rowOf(1, i)});
      while (!isWritten() && steady_clock::now() < end) publisher.loop->run(0, 0.001, false);
      const auto now = steady_clock::now();
      if (isKilled) outage = std::max(outage, Seconds(now - last).count());
      last = now;
    }
  }
  std::printf("%d server%s, %u rows\n", members, members == 1 ? "" : "s", rows);
  std::printf("  rows written a second   %9.0f   bare client %9.0f\n", published, written);
  std::printf("  rows read a second      %9.0f   bare client %9.0f\n", copied, read);
  if (!times.empty()) {
    std::printf(
        "  a change is seen after  %9.2f ms (median), %.2f ms (99 of 100), %zu of 4000 told\n",
        times[times.size() / 2], times[times.size() * 99 / 100], times.size());
  }
  if (members > 1)
    std::printf("  without service         %9.2f s after the leader was killed\n", outage);
}

}  // namespace

int main(int count, char** arguments) try {
  const auto rows = static_cast<oid_t>(count > 1 ? std::stoul(arguments[1]) : 100000);
  measure(1, rows);
  measure(3, rows);
} catch (const std::exception& error) {
  std::cerr << "etcd_bench: " << error.what() << '\n';
  return 1;
}
