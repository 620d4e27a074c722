#include <Korvo/KorvoApi.h>
#include <Korvo/assertion.h>

#include <deque>
#include <functional>
#include <memory>
#include <string_view>
#include <unordered_set>
#include <utility>

namespace Korvo {

namespace {

constexpr const char* kSourceFile = "src/KorvoApi.cpp";

// ---------------------------------------------------------------------------------------------
// State. Built on first use and never destroyed, so that static objects of other sources can use
// it in their constructors and destructors.

using RowOpsFactory = std::function<KoPtr<RowOpsBase>(const std::string&, unsigned char)>;

struct Registry {
  std::string _sysname_;
  /// Not a vector: a callback may register another while it runs, and has to stay where it is.
  std::deque<std::function<void(std::string, std::string)>> callbacks;
  bool isolated = false;
  /// Null if there is none. Shared with the calls under way: a factory may install its successor.
  std::shared_ptr<const RowOpsFactory> rowOpsFactory_;
};

Registry& registry() {
  static Registry& instance = *new Registry;
  return instance;
}

struct Infrastructure {
  const std::unordered_set<std::string> names{
      "korvo/metadata/koClass",
      "korvo/metadata/koTable",
      "korvo/metadata/koColumn",
      "korvo/metadata/koConstraint",
      "korvo/metadata/koType",
      "korvo/metadata/koDefault",
      "korvo/metadata/koRowOps",
      "korvo/metadata/SystemDescription",
      "korvo/koCtrl/query",
      "korvo/koCtrl/query_pub",
      "korvo/koCtrl/query_param_types",
      "korvo/koCtrl/subscription",
      "korvo/koCtrl/publication",
      "korvo/koCtrl/query_instance",
      "korvo/koCtrl/query_parameter",
      "korvo/koCtrl/QueryStatus",
      "korvo/koCtrl/client",
      "korvo/koCtrl/client_instance",
      "korvo/koCtrl/table_instance",
      "korvo/External/Subscription",
      "korvo/External/Publication",
  };
  std::unordered_set<std::string> prefixes;
  bool prefixesInitialized = false;
};

Infrastructure& infrastructure() {
  static Infrastructure& instance = *new Infrastructure;
  return instance;
}

// Built when the library is loaded, if nobody asked before.
[[maybe_unused]] const Infrastructure& builtAtLoad = infrastructure();

}  // namespace

// ---------------------------------------------------------------------------------------------
// System name

std::string sysname() {
  return registry()._sysname_;
}

void sysnameIs(const std::string& name) {
  Registry& state = registry();
  // NOLINTNEXTLINE(performance-unnecessary-copy-initialization): see the reason behind it
  const std::string newName = name;  // a callback may change what `name` refers to
  std::string oldName = newName;     // both copies are made before anything changes
  oldName.swap(state._sysname_);
  if (oldName.empty() || oldName == newName) return;
  const std::size_t count = state.callbacks.size();
  for (std::size_t i = 0; i < count; ++i) state.callbacks[i](oldName, newName);
}

int registerSysnameCallback(const std::string&,
                            std::function<void(const std::string&, const std::string&)> callback) {
  auto& callbacks = registry().callbacks;
  callbacks.emplace_back(std::move(callback));
  return static_cast<int>(callbacks.size());
}

void runMeInIsolatedDatabase() {
  Registry& state = registry();
  KORVO_ASSERT(state._sysname_.empty(), "_sysname_.empty()", kSourceFile,
               "void Korvo::runMeInIsolatedDatabase()");
  state.isolated = true;
}

bool requireSysnameChangeNotifications() {
  return registry().isolated;
}

// ---------------------------------------------------------------------------------------------
// Row operations

RowOps_p_t getRowOps(const std::string& tableName, std::uint8_t selector) {
  const std::shared_ptr<const RowOpsFactory> factory = registry().rowOpsFactory_;
  KORVO_ASSERT(factory != nullptr, "rowOpsFactory_ != __null", kSourceFile,
               "Korvo::RowOps_p_t Korvo::getRowOps(const string&, uint8_t)");
  return (*factory)(tableName, selector);
}

void rowOpsFactoryIs(RowOpsFactory factory) {
  std::shared_ptr<const RowOpsFactory> stored;
  if (factory != nullptr) stored = std::make_shared<const RowOpsFactory>(std::move(factory));
  registry().rowOpsFactory_.swap(stored);  // the old one ends with the call, after the change
}

// ---------------------------------------------------------------------------------------------
// Infrastructure tables

void initializeInfrastructurePrefixes() {
  Infrastructure& tables = infrastructure();
  for (const std::string& name : tables.names) {
    tables.prefixes.insert(name.substr(0, name.rfind('/')));
  }
  tables.prefixesInitialized = true;
}

bool isInfrastructureTable(const std::string& tableName) {
  constexpr std::string_view kInput = "/input";
  const Infrastructure& tables = infrastructure();
  if (tables.names.contains(tableName)) return true;
  if (!tables.prefixesInitialized) initializeInfrastructurePrefixes();

  const std::size_t slash = tableName.rfind('/');
  if (slash == std::string::npos || slash <= kInput.size()) return false;
  const std::size_t dirLen = slash - kInput.size();
  if (tableName.compare(dirLen, kInput.size(), kInput) != 0) return false;
  const std::string dir = tableName.substr(0, dirLen);
  return tables.prefixes.contains(dir) && tables.names.contains(dir + tableName.substr(slash));
}

}  // namespace Korvo
