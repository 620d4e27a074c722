#include "transfer.h"

#include <sched.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <memory>
#include <new>
#include <system_error>

#include "agent.h"
#include "progress.h"
#include "rowLink.h"
#include "rowSource.h"

namespace netdb {
namespace {

struct Unmap {
  void operator()(SharedProgress* shared) const { ::munmap(shared, sizeof *shared); }
};

std::unique_ptr<SharedProgress, Unmap> makeSharedProgress() {
  void* const memory = ::mmap(nullptr, sizeof(SharedProgress), PROT_READ | PROT_WRITE,
                              MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) throw std::system_error(errno, std::generic_category(), "mmap");
  return std::unique_ptr<SharedProgress, Unmap>(new (memory) SharedProgress{});
}

void publishBlocking(RowSource& source, int socket, const std::function<void()>& report) {
  RowSender sender(socket);
  PrefixRow row;
  while (source.next(row)) {
    sender.add(row);
    if (!sender.full()) continue;
    sender.send(true);
    report();
  }
  sender.send(true);
  sender.sendEnd(true);
}

void receiveBlocking(int socket, Subscriber& subscriber, const std::function<void()>& report) {
  RowReceiver receiver(socket);
  while (receiver.receive(true) == RowReceiver::Result::received) {
    for (const RowReceiver::Packet& packet : receiver.packets()) {
      subscriber.take(packet.bytes, packet.length);
    }
    report();
  }
}

/// All the work of the publisher process; returns its exit status. `parent` is the agent of the
/// process that it was forked from, whose scheduler is of no use here.
int publisherProcess(RowSource& source, int socket, SharedProgress& shared, const Agent* parent) {
  try {
    const auto report = [&] {
      shared.permille = static_cast<std::uint32_t>(1000 * source.progress());
    };
    if (parent == nullptr) {
      publishBlocking(source, socket, report);
    } else {
      Agent("publisher", parent->traced()).publish(source, socket, report);
    }
    report();
    return 0;
  } catch (const std::exception& e) {
    complain(std::string("netdb: publisher: ") + e.what());
    return 1;
  }
}

/// Work in bulk: neither process has the other interrupted for each row, so that rows come by the
/// hundred. Where it is refused, nothing but time is lost.
void preferThroughput() {
  const sched_param priority{};
  ::sched_setscheduler(0, SCHED_BATCH, &priority);
}

void awaitProcess(pid_t process) {
  int status = 0;
  while (::waitpid(process, &status, 0) < 0 && errno == EINTR) {
  }
}

}  // namespace

TransferResult transferRows(const TransferOptions& options, RowTable& table, Agent* agent) {
  const auto begin = std::chrono::steady_clock::now();
  const auto shared = makeSharedProgress();
  RowSource source(options.inputs,
                   [&](const std::string& file, std::uint32_t line, const std::string& reason) {
                     ++shared->malformedLines;
                     complain(file + ':' + std::to_string(line) + ": " + reason + "; line skipped");
                   });
  RowSockets sockets;

  preferThroughput();
  std::fflush(nullptr);
  const pid_t publisher = ::fork();
  if (publisher < 0) throw std::system_error(errno, std::generic_category(), "fork");
  if (publisher == 0) {
    sockets.subscriber.close();
    const int status = publisherProcess(source, sockets.publisher.get(), *shared, agent);
    std::fflush(nullptr);
    ::_exit(status);
  }
  sockets.publisher.close();

  ProgressDisplay display(options.quiet);
  Subscriber subscriber(table, [&](std::uint64_t number, const std::string& reason) {
    complain("netdb: row " + grouped(number) + " refused: " + reason);
  });
  const auto report = [&] { display.show(shared->permille, table.rows().size()); };
  try {
    if (agent == nullptr) {
      receiveBlocking(sockets.subscriber.get(), subscriber, report);
    } else {
      agent->receive(sockets.subscriber.get(), subscriber, report);
    }
  } catch (...) {
    sockets.subscriber.close();  // the publisher's next row fails, and it ends
    awaitProcess(publisher);
    throw;
  }
  awaitProcess(publisher);
  report();
  display.clear();
  if (!subscriber.complete()) {
    complain("netdb: the stream broke; " + grouped(table.rows().size()) +
             " rows were received before");
  }

  TransferResult result;
  result.refusedRows = subscriber.refused();
  result.malformedLines = shared->malformedLines;
  result.rowBytes = subscriber.bytes();
  result.complete = subscriber.complete();
  result.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
  return result;
}

}  // namespace netdb
