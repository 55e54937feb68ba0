#include "opencl/cl_device_key.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <iterator>
#include <utility>

namespace gpuvet {

std::vector<ClDeviceKey> ClDeviceTable;
ClDeviceKey SelectedClDevice;

namespace {

// Negative, 0 or positive as a sorts before, with or after b: the common length
// byte by byte as unsigned bytes, then the shorter first.
int ByteOrder(std::string_view a, std::string_view b) {
  const std::size_t common = std::min(a.size(), b.size());
  const int order = common == 0 ? 0 : std::memcmp(a.data(), b.data(), common);
  if (order != 0) {
    return order;
  }
  return a.size() == b.size() ? 0 : (a.size() < b.size() ? -1 : 1);
}

// The key order, for keys and for views of keys alike.
// The first field that differs decides; each string is compared once.
template <typename Key>
bool KeyLess(const Key& a, const Key& b) {
  if (a.VID != b.VID) {
    return a.VID < b.VID;
  }
  int order = ByteOrder(a.DeviceName, b.DeviceName);
  if (order == 0) {
    order = ByteOrder(a.OpenCLCVersion, b.OpenCLCVersion);
  }
  if (order == 0) {
    order = ByteOrder(a.DeviceVersion, b.DeviceVersion);
  }
  if (order == 0) {
    order = ByteOrder(a.DriverVersion, b.DriverVersion);
  }
  return order < 0;
}

template <typename Key>
bool KeyEqual(const Key& a, const Key& b) {
  return a.VID == b.VID && a.DeviceName == b.DeviceName && a.OpenCLCVersion == b.OpenCLCVersion &&
         a.DeviceVersion == b.DeviceVersion && a.DriverVersion == b.DriverVersion;
}

// Sorting a long list straight by the key order spends its time comparing the
// long prefixes that names share ("NVIDIA GeForce ...") and moving records. So
// the list is sorted through small entries whose integers decide the order of
// most pairs alone; only the rest fall back to the key order itself.

constexpr std::size_t kStringFields = 4;
constexpr std::size_t kPrefixBytes = 7;
constexpr uint64_t kLongRest = kPrefixBytes + 1;  // the rest of the string goes past the prefix bytes
constexpr uint64_t kByteMask = 0xFF;
constexpr int kBitsPerByte = 8;

using StringField = std::string_view ClDeviceKeyView::*;
constexpr StringField kStringFieldsInOrder[kStringFields] = {
    &ClDeviceKeyView::DeviceName, &ClDeviceKeyView::OpenCLCVersion, &ClDeviceKeyView::DeviceVersion,
    &ClDeviceKeyView::DriverVersion};

// For each string field, the number of bytes that all the views' strings of
// that field begin with. One pass over the views: the text is far from the cache.
std::array<std::size_t, kStringFields> SharedPrefixLengths(const std::vector<ClDeviceKeyView>& views) {
  std::array<std::size_t, kStringFields> shared;
  for (std::size_t field = 0; field < kStringFields; ++field) {
    shared[field] = (views.front().*kStringFieldsInOrder[field]).size();
  }
  for (const ClDeviceKeyView& view : views) {
    for (std::size_t field = 0; field < kStringFields; ++field) {
      const std::string_view first = views.front().*kStringFieldsInOrder[field];
      const std::string_view text = view.*kStringFieldsInOrder[field];
      const std::size_t reach = std::min(shared[field], text.size());
      shared[field] = std::mismatch(first.begin(), first.begin() + reach, text.begin()).first - first.begin();
    }
  }
  return shared;
}

// The string past the shared prefix, cut to its first seven bytes, big-endian
// and padded with zero bytes, then the length of that rest, capped at kLongRest.
// Two such numbers order their strings as the key order does; when they are
// equal, so are the strings, unless both rests are long.
uint64_t OrderPrefix(std::string_view text, std::size_t shared) {
  const std::size_t rest = text.size() - shared;
  uint64_t prefix = 0;
  for (std::size_t i = 0; i < kPrefixBytes; ++i) {
    const uint64_t byte = i < rest ? static_cast<unsigned char>(text[shared + i]) : 0;
    prefix = (prefix << kBitsPerByte) | byte;
  }
  return (prefix << kBitsPerByte) | std::min<uint64_t>(rest, kLongRest);
}

struct SortEntry {
  uint32_t VID;
  uint32_t index;  // of the view in the list
  std::array<uint64_t, kStringFields> prefixes;
};

// What two entries tell of the order of their keys.
enum class EntryOrder { kLess, kEqual, kGreater, kUndecided };

EntryOrder CompareEntries(const SortEntry& a, const SortEntry& b) {
  if (a.VID != b.VID) {
    return a.VID < b.VID ? EntryOrder::kLess : EntryOrder::kGreater;
  }
  for (std::size_t field = 0; field < kStringFields; ++field) {
    if (a.prefixes[field] != b.prefixes[field]) {
      return a.prefixes[field] < b.prefixes[field] ? EntryOrder::kLess : EntryOrder::kGreater;
    }
    if ((a.prefixes[field] & kByteMask) == kLongRest) {
      return EntryOrder::kUndecided;
    }
  }
  return EntryOrder::kEqual;
}

bool EntryLess(const std::vector<ClDeviceKeyView>& views, const SortEntry& a, const SortEntry& b) {
  const EntryOrder order = CompareEntries(a, b);
  return order == EntryOrder::kUndecided ? KeyLess(views[a.index], views[b.index]) : order == EntryOrder::kLess;
}

// The leading part of an entry's order in one integer, small enough for a radix
// sort: the vendor id, then the first four bytes of the device name's prefix.
struct LeadEntry {
  uint64_t lead;
  uint32_t index;  // of the entry
};

constexpr int kLeadBytes = 8;
constexpr std::size_t kRadix = 256;
constexpr int kVidShift = 32;  // the vendor id takes the upper half of a lead

uint64_t LeadOf(const SortEntry& entry) {
  return (static_cast<uint64_t>(entry.VID) << kVidShift) | (entry.prefixes[0] >> kVidShift);
}

// The entries sorted by lead alone: least significant byte first, a counting
// pass each, skipping the bytes in which no two leads differ (in a real list
// most are: few vendors, names that share their start).
std::vector<LeadEntry> SortedByLead(const std::vector<SortEntry>& entries) {
  std::vector<LeadEntry> sorted(entries.size());
  uint64_t differing = 0;
  for (std::size_t index = 0; index < entries.size(); ++index) {
    sorted[index] = {LeadOf(entries[index]), static_cast<uint32_t>(index)};
    differing |= sorted[index].lead ^ sorted.front().lead;
  }
  std::vector<LeadEntry> scratch(entries.size());
  for (int byte = 0; byte < kLeadBytes; ++byte) {
    const int shift = byte * kBitsPerByte;
    if (((differing >> shift) & kByteMask) == 0) {
      continue;
    }
    std::array<std::size_t, kRadix> starts{};
    for (const LeadEntry& entry : sorted) {
      ++starts[(entry.lead >> shift) & kByteMask];
    }
    std::size_t start = 0;
    for (std::size_t& bucket : starts) {
      start += std::exchange(bucket, start);
    }
    for (const LeadEntry& entry : sorted) {
      scratch[starts[(entry.lead >> shift) & kByteMask]++] = entry;
    }
    sorted.swap(scratch);
  }
  return sorted;
}

// The entries in the order of their keys: by lead first, then each run of
// equal leads, short in a real list, by the full entry order. A comparison sort
// of the whole list spent its time moving entries and comparing equal vendors.
std::vector<SortEntry> SortedEntries(const std::vector<SortEntry>& entries,
                                     const std::vector<ClDeviceKeyView>& views) {
  const std::vector<LeadEntry> byLead = SortedByLead(entries);
  std::vector<SortEntry> sorted;
  sorted.reserve(entries.size());
  for (const LeadEntry& entry : byLead) {
    sorted.push_back(entries[entry.index]);
  }
  const auto less = [&views](const SortEntry& a, const SortEntry& b) { return EntryLess(views, a, b); };
  for (std::size_t runStart = 0; runStart < byLead.size();) {
    std::size_t runEnd = runStart + 1;
    while (runEnd < byLead.size() && byLead[runEnd].lead == byLead[runStart].lead) {
      ++runEnd;
    }
    if (runEnd - runStart > 1) {
      std::sort(sorted.begin() + runStart, sorted.begin() + runEnd, less);
    }
    runStart = runEnd;
  }
  return sorted;
}

ClDeviceKeyView ViewOf(const ClDeviceKey& key) {
  return {key.VID, key.DeviceName, key.OpenCLCVersion, key.DeviceVersion, key.DriverVersion};
}

}  // namespace

bool StringLess(const std::string& a, const std::string& b) {
  return ByteOrder(a, b) < 0;
}

bool ClDeviceKeyEqual(const ClDeviceKey& a, const ClDeviceKey& b) {
  return KeyEqual(a, b);
}

bool ClDeviceKeyLess(const ClDeviceKey& a, const ClDeviceKey& b) {
  return KeyLess(a, b);
}

std::vector<std::size_t> SortedUniqueOrder(const std::vector<ClDeviceKeyView>& views) {
  std::vector<std::size_t> order;
  if (views.empty()) {
    return order;
  }
  const std::array<std::size_t, kStringFields> shared = SharedPrefixLengths(views);
  std::vector<SortEntry> entries(views.size());
  for (std::size_t index = 0; index < views.size(); ++index) {
    SortEntry& entry = entries[index];
    entry.VID = views[index].VID;
    entry.index = static_cast<uint32_t>(index);
    for (std::size_t field = 0; field < kStringFields; ++field) {
      entry.prefixes[field] = OrderPrefix(views[index].*kStringFieldsInOrder[field], shared[field]);
    }
  }
  entries = SortedEntries(entries, views);

  // Sorted neighbours are equal when their entries say so, or cannot tell and the views are.
  order.reserve(entries.size());
  order.push_back(entries.front().index);
  for (std::size_t next = 1; next < entries.size(); ++next) {
    const EntryOrder neighbours = CompareEntries(entries[next - 1], entries[next]);
    const bool equal = neighbours == EntryOrder::kEqual ||
                       (neighbours == EntryOrder::kUndecided &&
                        KeyEqual(views[entries[next - 1].index], views[entries[next].index]));
    if (!equal) {
      order.push_back(entries[next].index);
    }
  }
  return order;
}

void SortUnique(std::vector<ClDeviceKey>& keys) {
  std::vector<ClDeviceKeyView> views;
  views.reserve(keys.size());
  std::transform(keys.begin(), keys.end(), std::back_inserter(views), ViewOf);
  const std::vector<std::size_t> order = SortedUniqueOrder(views);
  std::vector<ClDeviceKey> sorted;
  sorted.reserve(order.size());
  for (const std::size_t index : order) {
    sorted.push_back(std::move(keys[index]));
  }
  keys = std::move(sorted);
}

}  // namespace gpuvet
