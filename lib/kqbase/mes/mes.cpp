// mes_: the texts of every message the libraries show, by group and number.
//
// Group 204 texts are printf formats; the code that reports a finding passes
// exactly the arguments the format converts, in its order. A location is a
// file offset in bytes; an "entry" is the number (0 to 31) of an entry of an
// index record.
#include "mes.h"

#include <cstdio>
#include <cstring>

namespace {

struct Message {
  int number;
  const char* text;
};

// Whole-file maintenance: the integrity check's findings and its own escapes.
constexpr Message kMaint[] = {
    {1000, "item header at file offset %u rewritten: %d of 64 bytes written"},
    {1001, "entry %d of the index record at file offset %u points to a child of %u bytes, "
           "not an index record of 384"},
    {1002, "short read of the index record at file offset %u: %d of 384 bytes"},
    {1003, "index record with a wrong magic number %u (an index record starts with 12345678)"},
    {1004, "index record of type %u, not 18"},
    {1005, "the root index record at file offset %u overlaps space already in use, or lies far "
           "past the end of the file"},
    {1006, "index record at file offset %u names %u as its parent, which is not the record "
           "that points to it"},
    {1007, "entry %d of the index record at file offset %u is empty but its free-map bit says "
           "full"},
    {1008, "entry %d points to file offset %u, past the end of the file"},
    {1009, "entry %d of the index record at file offset %u runs past the end of the file"},
    {1010, "entry %d of the index record at file offset %u overlaps space already in use, or "
           "lies far past the end of the file"},
    {1011, "could not write back the repaired index record at file offset %u"},
    {1012, "entry %d of the index record at file offset %u leads more than seven levels down: "
           "no index tree is that deep"},
    {1013, "the item whose header is at file offset %u is an internal container inside an "
           "internal container, which cannot be"},
    {1014, "the root index record of a blocked item lies at file offset %u, past the end of "
           "the file"},
    {1015, "the root index record at file offset %u runs past the end of the file"},
    {1016, "short read of the root index record at file offset %u: %d of 384 bytes"},
    {1017, "item header location %u lies past the end of the file"},
    {1018, "the item header at file offset %u runs past the end of the file"},
    {1019, "short read of the item header at file offset %u: %d of 64 bytes"},
    {1020, "the item header at file offset %u has a wrong magic number %u"},
    {1021, "the item header at file offset %u has type %u, not 17"},
    {1022, "the data of the item whose header is at file offset %u starts past the end of the "
           "file"},
    {1023, "the data at file offset %u of the item whose header is at file offset %u runs past "
           "the end of the file"},
    {1024, "item data at file offset %u overlaps space already in use, has no blocks reserved, "
           "or lies far past the end of the file"},
    {1025, "the internal container whose data starts at file offset %u has a damaged item "
           "slot; clearing the slot"},
    {1026, "short read of the file header"},
    {1027, "the file header has a wrong magic number %u (an SFL file starts with 12345678)"},
    {1028, "the file header has type %u, not 16"},
    {1029, "another process has the file open: faults are reported but not repaired"},
    {1030, "the file header gives %u item slots, which this kind of file cannot have"},
    {1031, "the item whose header is at file offset %u failed the check"},
    {1032, "the reference names an item inside a file, not a container file"},
    {1033, "the free-map item (slot 0) is marked as a blocked item"},
    {1034, "the free map is %u bytes long but the space in use needs %u bytes of map"},
    {1035, "short read of the free map"},
    {1036, "free-map byte %u is 0x%02x but the space in use needs 0x%02x: blocks in use are "
           "marked free"},
    {1037, "free-map byte %u is 0x%02x but only 0x%02x is in use: blocks are marked in use "
           "that nothing uses"},
    {1038, "could not write back the repaired free map"},
    {1039, "the index record at file offset %u counts %u entries in use, but %u are"},
    {1040, "the index record at file offset %u has EverUsed %u but needs at least %u"},
    {1041, "the item header at file offset %u is all zeros (a slot taken but never written)"},
    {1042, "could not write back the repaired file header"},
    {1043, "the item with data at file offset %u (header at file offset %u) has fewer blocks "
           "reserved than its size needs"},
    {1044, "entry %d of the index record at file offset %u: its free-map bit does not match "
           "the child's fullness (child full: %d)"},
    {1045, "the file of %u bytes is a container whose creation never finished"},
    {1046, "another process is creating the container: it is left to finish"},
    {1047, "the unfinished creation was completed: the file is now an empty container"},
    {1048, "the item header at file offset %u belongs to a slot taken for an item but never "
           "written (the storing process stopped first)"},
    {1049, "the item header at file offset %u is marked deleted but the file header does not "
           "say a release is pending: its slot would never be released"},
    {1050, "the item at file offset %u was stored without its data and never completed (its "
           "storing process stopped before closing it): its data cannot be trusted"},
};

// The storage library's own reasons (group 100, and group 3 for the
// handle-table faults), and the interest-request failure.
constexpr Message kStorage[] = {
    {3533, "interest request could not be sent"},
    {28850, "no free item slot for a blocked item"},
    {28851, "short write of a record or item data"},
    {28852, "cached leaf claimed a free entry but had none"},
    {28853, "not a blocked item"},
    {28854, "block index within a leaf above 31"},
    {28856, "short write of block data"},
    {28857, "reference names no item"},
    {28858, "item already open in this process"},
    {28859, "detach of an item whose attach count is 0"},
    {28860, "reference names an item, not a file"},
    {28861, "file already open in this process"},
    {28862, "not an SFL file, or wrong format version"},
    {28864, "item deleted or never stored"},
    {28865, "short write of the free map"},
    {28866, "open-files table full"},
    {28867, "bad handle"},
    {28868, "open-item count would go below zero"},
    {28869, "operation not allowed on a blocked item"},
    {28870, "open-items table full"},
    {28871, "short read of a record"},
    {28872, "free map has no place, or range outside the map"},
    {28873, "short read of the free map"},
    {28874, "range or position outside the item"},
    {28875, "empty index entry"},
    {28876, "block number outside the index"},
    {28877, "block number given for a simple parent"},
    {28878, "internal item open more than once"},
    {28879, "bad index record"},
    {28880, "bad item header"},
    {28881, "bad file header"},
    {28883, "no internal item header there"},
    {28885, "item closed while holding range locks"},
    {28886, "bad stream mode for an item"},
    {28887, "item streams move single bytes only"},
    {28888, "stream table full"},
    {28889, "truncate or append on a blocked item"},
    {28890, "size beyond the reserved space"},
    {28891, "activation of an internal item"},
    {28892, "not possible in a single-item file"},
    {28896, "in-memory free map required"},
    {28897, "feature not built"},
    {28898, "free-map extension without its header"},
    {28899, "index tree too deep"},
};

constexpr Message kCall[] = {{22, "invalid argument"}, {38, "whence must be 0"}};

constexpr Message kConfig[] = {
    {4401, "unsafe name tag in item reference"},
    {4402, "malformed item reference text"},
    {4403, "name is not a file of the item store"},
    {4404, "buffer too small for the name"},
    {4405, "no unique file number found"},
};

constexpr int kGroupCall = 1, kGroupOs = 2, kGroupConfig = 101, kGroupMonit = 116;

template <size_t N>
const char* find(const Message (&table)[N], int number) {
  for (const Message& m : table)
    if (m.number == number) return m.text;
  return nullptr;
}

// Copies `text` into out; -1 when it had to be cut.
int put(const char* text, char* out, size_t outLen) {
  if (out == nullptr || outLen == 0) return -1;
  int n = std::snprintf(out, outLen, "%s", text);
  return n < 0 || static_cast<size_t>(n) >= outLen ? -1 : n;
}

}  // namespace

const char* mes_Text(int group, int number) {
  if (group == kGroupOs) return std::strerror(number);
  if (group == kGroupCall) {
    const char* t = find(kCall, number);
    return t != nullptr ? t : "bad call";
  }
  if (group == kGroupMonit && number == 380) return "interest service not available";
  if (group == kGroupConfig) {
    if (const char* t = find(kConfig, number)) return t;
  }
  if (group == MES_GROUP_MAINT) {
    if (const char* t = find(kMaint, number)) return t;
  }
  // The storage library's reasons are known whatever group carried them.
  return find(kStorage, number);
}

int mes_GetErrMsgPrefix(int group, int number, char* out, size_t outLen) {
  if (out == nullptr || outLen == 0) return -1;
  int n = std::snprintf(out, outLen, "SFL-%d-%d:", group, number);
  return n < 0 || static_cast<size_t>(n) >= outLen ? -1 : n;
}

int mes_GetAnyErMsg(int group, int number, char* out, size_t outLen) {
  if (const char* text = mes_Text(group, number)) return put(text, out, outLen) < 0 ? -1 : 0;
  if (out == nullptr || outLen == 0) return -1;
  int n = std::snprintf(out, outLen, "no text for message %d/%d", group, number);
  return n < 0 || static_cast<size_t>(n) >= outLen ? -1 : 1;
}
