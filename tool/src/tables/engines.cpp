#include "engines.h"

#ifdef KORVO_WITH_ETCD
#include <Korvo/EtcdTables.h>
#endif

#include "../failure.h"

namespace korvotool {

void makeKnown(const std::string& address) {
  if (!address.starts_with("etcd:")) return;
#ifdef KORVO_WITH_ETCD
  Korvo::EtcdEngine::add();
#else
  throw Failure(statusUnavailable,
                "this build of korvo knows no clusters of etcd: it was made without "
                "Korvo::EtcdTables, which needs gRPC (package libgrpc++-dev)");
#endif
}

}  // namespace korvotool
