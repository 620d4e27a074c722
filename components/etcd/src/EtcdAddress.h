#pragma once

// Where a cluster is, and who we are to it.

#include <string>
#include <string_view>
#include <vector>

namespace Korvo::detail {

/// "etcd://one:2379,two:2379,three:2379/system/publisher".
struct EtcdAddress {
  std::vector<std::string> members;
  std::string system;
  std::string publisher;

  static constexpr std::string_view scheme = "etcd:";

  /// Throws KoInvalidArgument for another form.
  explicit EtcdAddress(const std::string& text);

  /// What stands in front of all keys: "korvo/system/publisher/".
  std::string prefix() const { return "korvo/" + system + '/' + publisher + '/'; }
};

/// What does not belong into an address, where everybody who lists the processes reads it.
struct EtcdSettings {
  std::string user;
  std::string password;
  std::string ca;           ///< file with certificates of those who signed the members'
  std::string certificate;  ///< file with ours, if members ask for one
  std::string key;          ///< file with its key

  bool wantsTls() const { return !ca.empty() || !certificate.empty(); }

  /// What stands in its files; empty where none is named.
  struct Texts {
    std::string ca;
    std::string certificate;
    std::string key;
  };
  /// Throws KoInvalidArgument if one cannot be read, or is another kind of file.
  Texts texts() const;

  /// From the file that KORVO_ETCD_SETTINGS names, with lines such as "user = agent", and then from
  /// KORVO_ETCD_USER, _PASSWORD, _CA, _CERTIFICATE and _KEY. Throws KoInvalidArgument for a line of
  /// another form, and for a file that cannot be read or that everybody may read.
  static EtcdSettings fromEnvironment();
};

}  // namespace Korvo::detail
