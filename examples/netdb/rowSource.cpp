#include "rowSource.h"

namespace netdb {

PrefixRow makeRow(const Korvo::IpGenPrefix& prefix, const std::string& country,
                  const std::string& file, std::uint32_t line, Korvo::oid_t oid) {
  OriginRow origin;
  origin.create();
  origin.set<"file">(file);
  origin.set<"line">(line);

  std::vector<std::string> tags = {file};
  const std::string_view purpose = specialPurpose(prefix);
  if (!purpose.empty()) tags.emplace_back(purpose);

  PrefixRow row;
  row.create(oid);
  row.set<"prefix">(prefix);
  row.set<"first">(prefix.addr());
  row.set<"last">(lastAddress(prefix));
  row.set<"country">(country);
  row.set<"line">(line);
  row.set<"addresses">(addressCount(prefix));
  row.set<"ipv6">(prefix.addr().af() == Korvo::ipv6_);
  row.set<"tags">(tags);
  row.set<"origin">(origin);
  return row;
}

RowSource::RowSource(const std::vector<std::string>& paths, const Complaint& complaint) {
  for (const std::string& path : paths) {
    files_.push_back(std::make_unique<RangeFile>(
        path, [path, complaint](std::uint32_t line, const std::string& reason) {
          complaint(path, line, reason);
        }));
  }
}

bool RowSource::nextRange() {
  for (; current_ < files_.size(); ++current_) {
    if (!files_[current_]->next(range_)) continue;
    prefixes_ = coveringPrefixes(range_.range);
    nextPrefix_ = 0;
    return true;
  }
  return false;
}

/// FNV-1a, which a million prefixes pass with less than 200 of them in each other's way.
Korvo::oid_t RowSource::newOid(const Korvo::IpGenPrefix& prefix) {
  std::uint32_t hash = 2166136261;
  const auto add = [&](unsigned int byte) { hash = (hash ^ byte) * 16777619; };
  add(prefix.mask());
  for (int i = 0; i < prefix.addr().addressLengthBytes(); ++i) add(prefix.addr().bytes()[i]);
  while (hash == 0 || !oids_.insert(hash).second) ++hash;
  return hash;
}

bool RowSource::next(PrefixRow& row) {
  if (nextPrefix_ == prefixes_.size() && !nextRange()) return false;
  const Korvo::IpGenPrefix& prefix = prefixes_[nextPrefix_++];
  row = makeRow(prefix, range_.country, files_[current_]->name(), range_.line, newOid(prefix));
  return true;
}

double RowSource::progress() const {
  double read = 0;
  double size = 0;
  for (const auto& file : files_) {
    read += static_cast<double>(file->bytesRead());
    size += static_cast<double>(file->size());
  }
  return size > 0 ? std::min(read / size, 1.0) : 0.0;
}

}  // namespace netdb
