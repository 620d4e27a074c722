#pragma once

// Declares the library's classes, for headers that only name them. A declaration of one's own does
// not do: the library's carry what export.h says of the build's settings.

#include <Korvo/export.h>

namespace Korvo {

class KORVO_API KoBaseException;
class KORVO_API IpAddr;
class KORVO_API Ip6Addr;
class KORVO_API IpGenAddr;
class KORVO_API IpGenPrefix;

class KORVO_API KoRowBuf;
class KORVO_API BaseRow;
class KORVO_API RowWriter;
class KORVO_API SubRowReference;

class KORVO_API Schedulable;
class KORVO_API Scheduler;
class KORVO_API EventLoop;

}  // namespace Korvo
