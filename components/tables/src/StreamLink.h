#pragma once

// Links over streams of bytes, such as sockets.

#include <Korvo/ByteStream.h>
#include <Korvo/TableEngine.h>

#include <chrono>
#include <memory>
#include <string>

#include "TableCopies.h"

namespace Korvo::detail {

/// Makes links of the connector's streams; `copies` outlives them.
std::shared_ptr<TableSource> sourceOver(std::shared_ptr<ByteConnector> connector,
                                        TableCopies& copies, const std::string& name,
                                        std::chrono::milliseconds heartbeat);

}  // namespace Korvo::detail
