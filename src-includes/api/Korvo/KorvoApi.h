#pragma once

// The process-wide registry: the name of the system that the process belongs to, the factory of
// row operations, and the database's own tables.
//
//   Korvo::registerSysnameCallback("log", [](const std::string& from, const std::string& to) {
//     std::clog << "system " << from << " is now " << to << '\n';
//   });
//   Korvo::sysnameIs("alpha");  // the first name: no callback
//   Korvo::sysnameIs("beta");   // system alpha is now beta
//
// All state lives until the process ends; it can be used from static initialisers. Nothing is
// locked: the registry is set up and changed from one thread.

#include <Korvo/export.h>
#include <Korvo/korvo_types.h>

#include <cstdint>
#include <functional>
#include <string>

namespace Korvo {

/// The operations on the rows of one table. Defined by the host.
class RowOpsBase;
using RowOps_p_t = KoPtr<RowOpsBase>;

/// The system's name; empty until it is set.
KORVO_API std::string sysname();

/// Sets the system's name. When a name other than the empty one changes, the callbacks are called
/// in the order of their registration; what one of them throws ends that and leaves here, with the
/// new name set.
KORVO_API void sysnameIs(const std::string& name);

/// Adds a callback that is told (old name, new name), and returns how many there are now. A
/// callback may register others: they are told of later changes only. An empty one makes the next
/// change throw std::bad_function_call. `key` is not used. Callbacks cannot be removed.
KORVO_API int registerSysnameCallback(
    const std::string& key,
    std::function<void(const std::string& oldName, const std::string& newName)> callback);

/// Declares that the process runs in an isolated database of its own. Stops the process if the
/// system has a name already.
KORVO_API void runMeInIsolatedDatabase();

/// Whether runMeInIsolatedDatabase() was called: the process has to be told of new names.
KORVO_API bool requireSysnameChangeNotifications();

/// What the factory makes of the table name and the selector, null included; asked anew each time.
/// Stops the process if there is no factory.
KORVO_API RowOps_p_t getRowOps(const std::string& tableName, std::uint8_t selector);

/// Replaces the factory of row operations; an empty function removes it. May be called by the
/// factory itself, which is destroyed after it has returned.
KORVO_API void rowOpsFactoryIs(
    std::function<KoPtr<RowOpsBase>(const std::string& tableName, unsigned char selector)> factory);

/// Whether the name is that of one of the database's own tables, or of its copy in the directory
/// "input" beside it ("korvo/koCtrl/input/query"). Letter case matters.
KORVO_API bool isInfrastructureTable(const std::string& tableName);

/// Finds the directories of the database's own tables. Done by isInfrastructureTable() on first
/// need; calling it again changes nothing.
KORVO_API void initializeInfrastructurePrefixes();

}  // namespace Korvo
