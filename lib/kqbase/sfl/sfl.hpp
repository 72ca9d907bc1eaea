// sfl.hpp: the library from C++ with ownership.
//
// Move-only types own what the handle-based API of sfl.h hands out: a
// Container (an open container file), an Item, a BlockedItem and a Stream.
// Each closes what it owns when it is destroyed. Failures are escapes
// (er_Escape, with group(), reason() and what()), as in sfl.h.
//
// A destructor must not throw, so a close that fails there is not raised:
// the escape is cleared and handed to the close-failure handler (by default
// it is logged at level 2 through the library's log), and the handle is
// given up. Call close() first to see the failure as an escape instead;
// after a close() that failed the object still owns the handle, so the
// close can be tried again (or left to the destructor).
//
// Header only, over sfl.h; include it from C++20.
#ifndef SFL_HPP
#define SFL_HPP

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "sfl.h"

namespace sfl {

using Escape = er_Escape;
using Bytes = std::vector<std::byte>;

// What a destructor does with the escape of a close that failed. `what`
// names the kind of object ("container", "item", "blocked item", "stream").
using CloseFailureHandler = void (*)(const Escape& failure, const char* what, int32_t handle);

namespace detail {
inline void LogCloseFailure(const Escape& e, const char* what, int32_t handle) {
  er_EnhLogMsg(2, e.group(), e.reason(), e.file(), e.line(),
               "closing %s %d failed in its destructor; the handle is given up: %s", what,
               static_cast<int>(handle), e.what());
}
inline CloseFailureHandler& Handler() {
  static CloseFailureHandler handler = LogCloseFailure;
  return handler;
}
inline std::span<const std::byte> AsBytes(std::string_view s) {
  return std::as_bytes(std::span<const char>(s.data(), s.size()));
}
inline uint32_t Length(size_t n) {
  if (n > UINT32_MAX) er_TracedEscape(ER_GROUP_CALL, 22, __FILE__, __LINE__, "more than 4 GiB at once");
  return static_cast<uint32_t>(n);
}
}  // namespace detail

// Sets the handler destructors call for a failed close; returns the one it
// replaces. A null handler restores the default (logging).
inline CloseFailureHandler SetCloseFailureHandler(CloseFailureHandler handler) {
  CloseFailureHandler old = detail::Handler();
  detail::Handler() = handler != nullptr ? handler : detail::LogCloseFailure;
  return old;
}

// ---- references ------------------------------------------------------------------------------

// An item reference, naming a container file (item 0) or an item in it
// (1 to 7). Its text form is "Domain.SubDomain.FileId.Name[:item]".
class Ref {
 public:
  Ref() = default;
  explicit Ref(const sfl_ItemRef& raw) : raw_(raw) {}

  static Ref Parse(std::string_view text) {
    std::string s(text);
    Ref r;
    im_FormItemRef(s.c_str(), &r.raw_);
    return r;
  }
  std::string Text() const {
    char buf[96];
    im_ItemRef2Text(&raw_, buf, sizeof buf);
    return buf;
  }
  // The file name it leads to in the store.
  std::string FileName() const {
    char buf[4096];
    im_ItemRef2FName(&raw_, buf, sizeof buf);
    return buf;
  }

  uint32_t ItemNumber() const { return raw_.Flags & SFL_ITEM_NUM_MASK; }
  // The reference of the container file the item lies in.
  Ref File() const {
    Ref r(*this);
    r.raw_.Flags = static_cast<uint16_t>(r.raw_.Flags & ~SFL_ITEM_NUM_MASK);
    return r;
  }
  const sfl_ItemRef& Raw() const { return raw_; }
  const sfl_ItemRef* Ptr() const { return &raw_; }

  friend bool operator==(const Ref& a, const Ref& b) {
    return a.raw_.Domain == b.raw_.Domain && a.raw_.Flags == b.raw_.Flags &&
           a.raw_.SubDomain == b.raw_.SubDomain && a.raw_.FileId == b.raw_.FileId &&
           std::string_view(a.raw_.Name, strnlen(a.raw_.Name)) ==
               std::string_view(b.raw_.Name, strnlen(b.raw_.Name));
  }

 private:
  static size_t strnlen(const char* s) {
    size_t n = 0;
    while (n < sizeof(sfl_ItemRef::Name) && s[n] != '\0') ++n;
    return n;
  }
  sfl_ItemRef raw_{};
};

// ---- the owner of one handle ---------------------------------------------------------------------

namespace detail {
// Owns a handle of the kind `Close` releases; -1 when it owns none.
template <void (*Close)(int32_t), const char* What>
class Owned {
 public:
  Owned() = default;
  explicit Owned(int32_t h) : h_(h) {}
  Owned(Owned&& o) noexcept : h_(std::exchange(o.h_, -1)) {}
  Owned& operator=(Owned&& o) noexcept {
    if (this != &o) {
      Drop();
      h_ = std::exchange(o.h_, -1);
    }
    return *this;
  }
  Owned(const Owned&) = delete;
  Owned& operator=(const Owned&) = delete;
  ~Owned() { Drop(); }

  int32_t Handle() const { return h_; }
  bool IsOpen() const { return h_ >= 0; }
  // Closes now, raising what the close raises (the handle is then still
  // owned). Closing what is closed does nothing.
  void CloseNow() {
    if (h_ < 0) return;
    Close(h_);
    h_ = -1;
  }
  // Gives the handle up without closing it.
  int32_t Release() { return std::exchange(h_, -1); }

 private:
  void Drop() noexcept {
    if (h_ < 0) return;
    const int32_t h = std::exchange(h_, -1);
    try {
      Close(h);
    } catch (const Escape& e) {
      er_Clear();
      Handler()(e, What, h);
    } catch (...) {
      // Nothing but escapes leave the library; should anything else, it
      // must not leave a destructor either.
      er_Clear();
    }
  }
  int32_t h_ = -1;
};

inline constexpr char kContainer[] = "container";
inline constexpr char kItem[] = "item";
inline constexpr char kBlocked[] = "blocked item";
inline constexpr char kStream[] = "stream";
}  // namespace detail

class Item;
class BlockedItem;

// ---- items --------------------------------------------------------------------------------------

// An open item of simple (contiguous) data.
class Item {
 public:
  Item() = default;
  // Opens an item by its reference (its container is opened as needed and
  // closed with the item's last handle).
  static Item Open(const Ref& ref) { return Item(sfl_OpenItem(ref.Ptr(), 0), ref); }

  int32_t Handle() const { return h_.Handle(); }
  bool IsOpen() const { return h_.IsOpen(); }
  const Ref& Reference() const { return ref_; }

  // The item's status: st_size its length, st_nlink its attach count,
  // st_mtime when it last changed.
  struct stat Stat() const {
    struct stat st {};
    sfl_FStatItem(h_.Handle(), &st);
    return st;
  }
  uint64_t Size() const { return static_cast<uint64_t>(Stat().st_size); }
  // Reads into `out` from `position`; the whole span must lie in the item.
  // Returns the bytes read (fewer when the system moved fewer), or -1 with
  // errno set when the system refused the transfer.
  int32_t Read(uint32_t position, std::span<std::byte> out) const {
    return sfl_ReadSimpleData(h_.Handle(), position, detail::Length(out.size()), out.data());
  }
  Bytes ReadAll() const {
    Bytes b(static_cast<size_t>(Size()));
    if (!b.empty()) Read(0, b);
    return b;
  }
  std::string ReadText() const {
    Bytes b = ReadAll();
    return std::string(reinterpret_cast<const char*>(b.data()), b.size());
  }
  // Writes `data` from `position` on; the whole span must fit in the item.
  // Returns what Read returns, for the bytes written.
  int32_t Write(uint32_t position, std::span<const std::byte> data) {
    return sfl_WriteSimpleData(h_.Handle(), position, detail::Length(data.size()), data.data());
  }
  int32_t Write(uint32_t position, std::string_view text) { return Write(position, detail::AsBytes(text)); }
  void Truncate(uint32_t size) { sfl_TruncateSimItem(h_.Handle(), size); }
  void Sync() { sfl_SyncData(h_.Handle()); }
  // Deletes the item (at once when no one else holds its file, else when
  // the file's last holder closes it) and closes this handle.
  void Delete() {
    sfl_DeleteItem(h_.Handle());
    h_.CloseNow();
  }
  void Close() { h_.CloseNow(); }
  // Gives the handle up unclosed, for the caller to close.
  int32_t Release() { return h_.Release(); }

 private:
  friend class Container;
  Item(int32_t h, const Ref& ref) : h_(h), ref_(ref) {}
  detail::Owned<sfl_CloseItem, detail::kItem> h_;
  Ref ref_;
};

// One block of a blocked item: its number and its data's length.
struct Block {
  uint32_t number;
  uint32_t size;
};

// An open blocked item: data in numbered blocks reached through its index.
class BlockedItem {
 public:
  BlockedItem() = default;
  static BlockedItem Open(const Ref& ref) { return BlockedItem(sfl_OpenItem(ref.Ptr(), 0), ref); }

  int32_t Handle() const { return h_.Handle(); }
  bool IsOpen() const { return h_.IsOpen(); }
  const Ref& Reference() const { return ref_; }

  // The item's blocks numbered `first` to `last`, in ascending order;
  // freed and never-written numbers are not listed.
  std::vector<Block> Blocks(uint32_t first = 0, uint32_t last = UINT32_MAX) const {
    // The count comes first; blocks another process adds between the two
    // calls are picked up by asking again with the larger count.
    std::vector<sfl_BlockInfo> raw;
    uint32_t n = sfl_ListBlocks(h_.Handle(), first, last, nullptr, 0);
    for (;;) {
      raw.resize(n);
      const uint32_t now = sfl_ListBlocks(h_.Handle(), first, last, raw.data(), n);
      if (now <= n) {
        raw.resize(now);
        break;
      }
      n = now;
    }
    std::vector<Block> out;
    out.reserve(raw.size());
    for (const sfl_BlockInfo& b : raw) out.push_back({b.Block, b.Size});
    return out;
  }
  // Whether the item holds no blocks at all.
  bool Empty() const { return sfl_ListBlocks(h_.Handle(), 0, UINT32_MAX, nullptr, 0) == 0; }
  // Reads the start of a block into `out`: the smaller of the block's
  // length and the span's. Returns the bytes read.
  size_t Read(uint32_t block, std::span<std::byte> out) const {
    return sfl_ReadBlockedData(h_.Handle(), block, detail::Length(out.size()), out.data());
  }
  // A whole block, however long (an absent block raises the library's own
  // reason for it).
  Bytes ReadBlock(uint32_t block) const {
    const std::vector<Block> found = Blocks(block, block);
    // One byte more than listed, so a block grown since the listing shows
    // by filling the buffer; the read is then repeated with a larger one.
    Bytes data(found.empty() ? 1 : size_t{found[0].size} + 1);
    for (;;) {
      const size_t got = Read(block, data);
      if (got < data.size() || data.size() >= (size_t{1} << 31)) {
        data.resize(got);
        return data;
      }
      data.resize(data.size() * 2);
    }
  }
  // Appends a block after the last one; returns its number, or nothing
  // when the item's index has no room for another block.
  std::optional<uint32_t> AppendBlock(std::span<const std::byte> data) {
    const int32_t n = sfl_GetNewBlock(h_.Handle(), static_cast<int32_t>(detail::Length(data.size())),
                                      /*append=*/1, data.data());
    if (n < 0) return std::nullopt;
    return static_cast<uint32_t>(n);
  }
  std::optional<uint32_t> AppendBlock(std::string_view text) { return AppendBlock(detail::AsBytes(text)); }
  void WriteBlock(uint32_t block, std::span<const std::byte> data) {
    sfl_WriteBlockedData(h_.Handle(), block, detail::Length(data.size()), data.data());
  }
  void WriteBlock(uint32_t block, std::string_view text) { WriteBlock(block, detail::AsBytes(text)); }
  void FreeBlock(uint32_t block) { sfl_FreeBlock(h_.Handle(), block, 0); }
  // Renumbers the blocks from 0 in their order; returns the last number.
  uint32_t Compact() { return sfl_CompactBlockedItem(h_.Handle()); }
  // Moves block `from` to place `to`, shifting those between by one.
  void Reorder(uint32_t from, uint32_t to) { sfl_ReorderIndex(h_.Handle(), from, to); }
  void Close() { h_.CloseNow(); }
  // Gives the handle up unclosed, for the caller to close.
  int32_t Release() { return h_.Release(); }

 private:
  friend class Container;
  BlockedItem(int32_t h, const Ref& ref) : h_(h), ref_(ref) {}
  detail::Owned<sfl_CloseItem, detail::kBlocked> h_;
  Ref ref_;
};

// ---- containers -----------------------------------------------------------------------------------

// One slot of a container's item table.
using ItemInfo = sfl_ItemInfo;

class Container {
 public:
  Container() = default;
  // A new container file of the given reference type (SFL_TYPE_DATA_ITEM or
  // SFL_TYPE_TEMP_ITEM).
  static Container Create(int32_t type = SFL_TYPE_DATA_ITEM, int32_t flags = 0) {
    return Container(sfl_CreateSfl(0, type, flags));
  }
  static Container Open(const Ref& file) { return Container(sfl_OpenSfl(file.Ptr(), 0)); }

  int32_t Handle() const { return h_.Handle(); }
  bool IsOpen() const { return h_.IsOpen(); }
  Ref Reference() const {
    sfl_ItemRef raw{};
    sfl_GetSerFileItem(h_.Handle(), &raw);
    return Ref(raw);
  }

  // A new item of `size` bytes, open; zero-filled unless `zeroFill` is
  // false (for a caller that writes every byte itself). Not open (IsOpen()
  // false) when the container has no free slot.
  Item NewItem(uint32_t size, bool zeroFill = true) {
    sfl_ItemRef raw{};
    const int32_t h = sfl_StoreBasicItem(h_.Handle(), nullptr, size, &raw, zeroFill ? 0 : 1);
    return h < 0 ? Item() : Item(h, Ref(raw));
  }
  // As NewItem, in slot `slot` (1 to 7); not open when that slot is taken.
  Item NewItemAt(uint32_t slot, uint32_t size, bool zeroFill = true) {
    sfl_ItemRef raw{};
    const int32_t h = sfl_StoreItemAtPosition(h_.Handle(), nullptr, size, &raw, zeroFill ? 0 : 1,
                                              static_cast<int32_t>(slot));
    return h < 0 ? Item() : Item(h, Ref(raw));
  }
  // A new item holding `data`, open (not open when the container is full).
  Item Store(std::span<const std::byte> data) {
    Item item = NewItem(detail::Length(data.size()));
    if (item.IsOpen() && !data.empty()) item.Write(0, data);
    return item;
  }
  Item Store(std::string_view text) { return Store(detail::AsBytes(text)); }
  // A new blocked item without blocks, open and ready for them.
  BlockedItem NewBlockedItem() {
    sfl_ItemRef raw{};
    const int32_t h = sfl_CreateBlockedItem(h_.Handle(), &raw);
    BlockedItem b(h, Ref(raw));
    sfl_FormatBlockedRoot(b.Handle());
    return b;
  }
  // The item table, one entry per slot, as many as the file's header
  // names now (read afresh each call, so a header changed since the open
  // is reported as it is).
  std::vector<ItemInfo> Items() const {
    std::vector<ItemInfo> slots;
    int32_t n = sfl_ListItems(h_.Handle(), nullptr, 0);
    // The count is read again with the slots; should it have grown
    // between the two reads, ask again with room for it.
    while (n > static_cast<int32_t>(slots.size())) {
      slots.resize(static_cast<size_t>(n));
      n = sfl_ListItems(h_.Handle(), slots.data(), static_cast<int32_t>(slots.size()));
    }
    slots.resize(static_cast<size_t>(n > 0 ? n : 0));
    return slots;
  }
  uint32_t Flags() const { return sfl_GetFileFlags(h_.Handle()); }
  void Sync() { sfl_SyncBaseFile(h_.Handle()); }
  void Close() { h_.CloseNow(); }
  // Gives the handle up unclosed, for the caller to close.
  int32_t Release() { return h_.Release(); }

 private:
  explicit Container(int32_t h) : h_(h) {}
  detail::Owned<sfl_CloseFile, detail::kContainer> h_;
};

// ---- streams ------------------------------------------------------------------------------------------

// A stdio-like stream over one item ("r", "w" or "rw"; "w" does not
// truncate) or over a plain file.
class Stream {
 public:
  Stream() = default;
  static Stream Open(const Ref& item, const char* mode) { return Stream(sfl_fOpenItem(item.Ptr(), mode)); }
  static Stream OpenFile(const std::string& name, const char* mode) {
    return Stream(sfl_fOpen(name.c_str(), mode));
  }

  int32_t Handle() const { return h_.Handle(); }
  bool IsOpen() const { return h_.IsOpen(); }
  // How many bytes were read (fewer at the end of the item).
  size_t Read(std::span<std::byte> out) { return sfl_fRead(out.data(), 1, out.size(), h_.Handle()); }
  size_t Write(std::span<const std::byte> data) {
    return sfl_fWrite(data.data(), 1, data.size(), h_.Handle());
  }
  size_t Write(std::string_view text) { return Write(detail::AsBytes(text)); }
  // The next line with its newline (at most `max` bytes of it), or nothing
  // at the end. As with fgets, a line holding a zero byte is cut there.
  std::optional<std::string> GetLine(size_t max = 4096) {
    std::string buf(max + 1, '\0');
    if (sfl_fgets(buf.data(), static_cast<int32_t>(buf.size()), h_.Handle()) == nullptr) return std::nullopt;
    buf.resize(std::char_traits<char>::length(buf.c_str()));
    return buf;
  }
  // Returns what fseek returns (0 when it moved).
  int32_t Seek(int32_t offset, int whence = SEEK_SET) { return sfl_fSeek(h_.Handle(), offset, whence); }
  long Tell() const { return sfl_fTell(h_.Handle()); }
  void Close() { h_.CloseNow(); }
  // Gives the handle up unclosed, for the caller to close.
  int32_t Release() { return h_.Release(); }

 private:
  explicit Stream(int32_t h) : h_(h) {}
  detail::Owned<sfl_fClose, detail::kStream> h_;
};

// ---- maintenance --------------------------------------------------------------------------------------

// Checks a container file: true when no fault was found (findings are
// printed on standard output).
inline bool Check(const Ref& file, bool repair = false) {
  return sfl_CheckSflIntegrity(file.Ptr(), repair ? 1 : 0) == 0;
}
// Rebuilds a container without holes.
inline sfl_CompactOutcome Compact(const Ref& file) {
  return static_cast<sfl_CompactOutcome>(sfl_CompactContainer(file.Ptr()));
}
inline bool Exists(const Ref& ref) { return sfl_ItemExists(ref.Ptr()) != 0; }

}  // namespace sfl

#endif  // SFL_HPP
