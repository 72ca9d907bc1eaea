// The operations shared by the I/O-fault loop and the interleaving loop.
#include "op_catalog.h"

#include <dirent.h>
#include <filesystem>
#include <system_error>

#include "test_env.h"
#include "test_util.h"

namespace sfltest {

std::vector<uint8_t> Bytes(size_t n, uint32_t seed) { return PseudoRandomBytes(n, seed, 7); }

std::vector<std::vector<uint8_t>> ReadSlot(const sfl_ItemRef& ref, uint32_t slot) {
  std::vector<std::vector<uint8_t>> out;
  const int32_t h = sfl_OpenItem(&ref, 0);
  sfl_ItemRec* item = sfl_ItemHandle2Record(h);
  if ((item->Flags & BLOCKED_ITEM) != 0) {
    for (uint32_t b = 0; b < kBlocksC; ++b) {
      std::vector<uint8_t> buf(4096);
      buf.resize(sfl_ReadBlockedData(h, b, 4096, buf.data()));
      out.push_back(buf);
    }
  } else {
    std::vector<uint8_t> buf(item->Size);
    if (!buf.empty()) sfl_ReadSimpleData(h, 0, item->Size, buf.data());
    out.push_back(buf);
  }
  (void)slot;
  sfl_CloseItem(h);
  return out;
}

World Build() {
  World w;
  w.bh = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0);
  sfl_GetSerFileItem(w.bh, &w.file);
  w.path = ItemPath(w.file);
  auto simple = [&](uint32_t size, uint32_t seed) {
    sfl_ItemRef ref{};
    const int32_t h = sfl_StoreBasicItem(w.bh, nullptr, size, &ref, 0);
    const std::vector<uint8_t> data = Bytes(size, seed);
    sfl_WriteSimpleData(h, 0, size, data.data());
    sfl_CloseItem(h);
    w.refs[sfl_ItemNumOf(ref)] = ref;
  };
  simple(kSizeA, 1);
  simple(kSizeB, 2);
  sfl_ItemRef cref{};
  const int32_t c = sfl_CreateBlockedItem(w.bh, &cref);
  sfl_FormatBlockedRoot(c);
  for (uint32_t b = 0; b < kBlocksC; ++b) {
    const std::vector<uint8_t> data = Bytes(300 + 100 * b, 10 + b);
    sfl_WriteBlockedData(c, b, static_cast<uint32_t>(data.size()), data.data());
  }
  sfl_CloseItem(c);
  w.refs[sfl_ItemNumOf(cref)] = cref;
  simple(kSizeP, 3);
  for (const auto& [slot, ref] : w.refs) w.content[slot] = ReadSlot(ref, slot);
  return w;
}

int OpenDescriptors() {
  int n = 0;
  DIR* d = opendir("/proc/self/fd");
  while (dirent* e = readdir(d)) n += e->d_name[0] != '.';
  closedir(d);
  return n - 1;  // the directory's own
}

std::set<std::string> StoreFiles() {
  std::set<std::string> out;
  std::error_code ec;
  for (const auto& e : std::filesystem::recursive_directory_iterator(StoreRoot(), ec))
    if (e.is_regular_file() && e.path().filename().string()[0] != '#') out.insert(e.path().string());
  return out;
}

// The number of processes the service counts with an interest in `ref`.
uint32_t InterestHolders(const sfl_ItemRef& ref) {
  sfl_BaseRec probe;
  sfl_SetRef(probe, ref);
  sfl_CheckBaseInterest(&probe);
  return probe.ProcAccCount + probe.OtherInterest;
}

namespace {

void Nothing(World&) {}

int32_t OpenSlot(World& w, uint32_t slot) {
  const int32_t h = sfl_OpenItem(&w.refs[slot], 0);
  w.handles.push_back(h);
  return h;
}

// Whole-file work wants the container closed by this process.
void ReleaseContainer(World& w) {
  sfl_CloseFile(w.bh);
  w.bh = -1;
  CloseColdFiles();
}

}  // namespace

std::vector<Op> Operations() {
  std::vector<Op> ops;
  ops.push_back({"create", {}, Nothing, [](World& w) {
                   const int32_t bh = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0);
                   w.files.push_back(bh);
                 }});
  ops.push_back({"open", {},
                 [](World& w) {
                   sfl_CloseFile(w.bh);
                   w.bh = -1;
                   CloseColdFiles();
                 },
                 [](World& w) { w.bh = sfl_OpenSfl(&w.file, 0); }});
  ops.push_back({"close", {}, Nothing, [](World& w) {
                   sfl_CloseFile(w.bh);
                   w.bh = -1;
                 }});
  ops.push_back({"store", {}, Nothing, [](World& w) {
                   sfl_ItemRef ref{};
                   const int32_t h = sfl_StoreBasicItem(w.bh, nullptr, 5000, &ref, 0);
                   if (h >= 0) w.handles.push_back(h);
                   w.placed = ref;
                   w.hasPlaced = h >= 0;
                 }});
  ops.push_back({"read", {}, [](World& w) { w.h = OpenSlot(w, kA); },
                 [](World& w) {
                   std::vector<uint8_t> buf(2000);
                   sfl_ReadSimpleData(w.h, 100, 2000, buf.data());
                 }});
  ops.push_back({"write", {kA}, [](World& w) { w.h = OpenSlot(w, kA); },
                 [](World& w) {
                   const std::vector<uint8_t> data = Bytes(2000, 99);
                   sfl_WriteSimpleData(w.h, 500, 2000, data.data());
                 }});
  ops.push_back({"truncate", {kB}, [](World& w) { w.h = OpenSlot(w, kB); },
                 [](World& w) { sfl_TruncateSimItem(w.h, 50); }});
  ops.push_back({"copy", {}, Nothing, [](World& w) {
                   // Into the header of the free slot 7, as a rebuild does.
                   const int32_t h = sfl_CopySimpleItem(
                       w.bh, SFL_TABLE_OFFSET + 7 * SFL_ITEM_HEADER_SIZE, -1, 0, 700, 0);
                   w.handles.push_back(h);
                 }});
  ops.push_back({"attach", {}, Nothing, [](World& w) { sfl_AttachItem(&w.refs[kA]); }});
  ops.push_back({"detach", {}, [](World& w) { sfl_AttachItem(&w.refs[kA]); },
                 [](World& w) { sfl_DetachItem(&w.refs[kA]); }});
  ops.push_back({"delete", {kB}, [](World& w) { w.h = OpenSlot(w, kB); },
                 [](World& w) { sfl_DeleteItem(w.h); }});
  ops.push_back({"blocked-write-new", {}, [](World& w) { w.h = OpenSlot(w, kC); },
                 [](World& w) {
                   const std::vector<uint8_t> data = Bytes(500, 77);
                   sfl_WriteBlockedData(w.h, 40, 500, data.data());
                 }});
  ops.push_back({"blocked-rewrite", {kC}, [](World& w) { w.h = OpenSlot(w, kC); },
                 [](World& w) {
                   const std::vector<uint8_t> data = Bytes(300, 78);
                   sfl_WriteBlockedData(w.h, 1, 300, data.data());
                 }});
  ops.push_back({"blocked-read", {}, [](World& w) { w.h = OpenSlot(w, kC); },
                 [](World& w) {
                   std::vector<uint8_t> buf(1000);
                   sfl_ReadBlockedData(w.h, 2, 1000, buf.data());
                 }});
  ops.push_back({"blocked-free", {kC}, [](World& w) { w.h = OpenSlot(w, kC); },
                 [](World& w) { sfl_FreeBlock(w.h, 1, 0); }});
  ops.push_back({"blocked-new-block", {}, [](World& w) { w.h = OpenSlot(w, kC); },
                 [](World& w) {
                   const std::vector<uint8_t> data = Bytes(260, 79);
                   w.newBlock = sfl_GetNewBlock(w.h, 260, 0, data.data());
                 }});
  ops.push_back({"blocked-create", {}, Nothing, [](World& w) {
                   sfl_ItemRef ref{};
                   w.handles.push_back(sfl_CreateBlockedItem(w.bh, &ref));
                   w.placed = ref;
                   w.hasPlaced = true;
                 }});
  ops.push_back({"internal-create", {kP}, [](World& w) { w.h = OpenSlot(w, kP); },
                 [](World& w) {
                   const int32_t ih = sfl_CreateIntBItem(w.h, 0, 128, 0);
                   w.handles.push_back(ih);
                   sfl_CloseIntItem(ih);
                 }});
  ops.push_back({"internal-open-remove", {kP},
                 [](World& w) {
                   w.h = OpenSlot(w, kP);
                   sfl_CloseIntItem(sfl_CreateIntBItem(w.h, 0, 128, 0));
                 },
                 [](World& w) {
                   const int32_t ih = sfl_OpenIntItem(w.h, 0, 128);
                   w.handles.push_back(ih);
                   sfl_RemoveIntItem(ih);
                 }});
  ops.push_back({"stream-write", {kA}, Nothing, [](World& w) {
                   const int32_t s = sfl_fOpenItem(&w.refs[kA], "rw");
                   const std::vector<uint8_t> data = Bytes(1500, 80);
                   sfl_fWrite(data.data(), 1, data.size(), s);
                   sfl_fClose(s);
                 }});
  ops.push_back({"stream-read", {}, Nothing, [](World& w) {
                   const int32_t s = sfl_fOpenItem(&w.refs[kA], "r");
                   std::vector<uint8_t> buf(kSizeA);
                   sfl_fRead(buf.data(), 1, buf.size(), s);
                   sfl_fClose(s);
                 }});
  ops.push_back({"compact-blocked", {kC},
                 [](World& w) {
                   w.h = OpenSlot(w, kC);
                   sfl_FreeBlock(w.h, 1, 0);  // a gap for the rebuild to close
                 },
                 [](World& w) { sfl_CompactBlockedItem(w.h); }});
  ops.push_back({"compact-container", {kB},
                 [](World& w) {
                   sfl_DetachItem(&w.refs[kB]);  // a hole for the rebuild to close
                   ReleaseContainer(w);
                 },
                 [](World& w) { sfl_CompactContainer(&w.file); }});
  ops.push_back({"check-repair", {}, ReleaseContainer,
                 [](World& w) { sfl_CheckSflIntegrity(&w.file, 1); }});
  return ops;
}

// Closes whatever the run left open, as its caller would; none of it may
// fail once no fault is pending.
void CloseWhatIsHeld(World& w) {
  sfl_StreamsTable& streams = sfl_Streams();
  for (size_t i = 0; i < streams.HighWater(); ++i) {
    sfl_StreamRec* r = streams.At(i);
    if (r != nullptr && r->InUse == 1) sfl_fClose(sfl_StreamsTable::kFirst + static_cast<int32_t>(i));
  }
  sfl_ItemsTable& items = sfl_OpenItems();
  for (auto it = w.handles.rbegin(); it != w.handles.rend(); ++it) {
    const int32_t h = *it;
    const size_t i = static_cast<size_t>(h - sfl_ItemsTable::kFirst);
    sfl_ItemRec* r = items.At(i);
    if (r == nullptr || r->InUse != 1) continue;
    if ((r->Flags & INT_ITEM) != 0) {
      sfl_CloseIntItem(h);
      continue;
    }
    // A new blocked item's root is laid down as zeros; its creator formats
    // it before anything else (a no-op once formatted).
    if ((r->Flags & BLOCKED_ITEM) != 0) sfl_FormatBlockedRoot(h);
    sfl_CloseItem(h);
  }
  for (int32_t bh : w.files) {
    sfl_BaseRec* r = sfl_OpenFiles().At(static_cast<size_t>(bh - sfl_FilesTable::kFirst));
    if (r != nullptr && r->InUse == 1 && r->InColdStore == 0) sfl_CloseFile(bh);
  }
  if (w.bh >= 0) {
    sfl_BaseRec* r = sfl_OpenFiles().At(static_cast<size_t>(w.bh - sfl_FilesTable::kFirst));
    // A close that escaped left the file open: it is closed again.
    if (r != nullptr && r->InUse == 1 && r->InColdStore == 0) sfl_CloseFile(w.bh);
  }
  // A file the operation opened implicitly and could not close stays open
  // until its next close: close it through its handle.
  sfl_FilesTable& files = sfl_OpenFiles();
  for (size_t i = 0; i < files.HighWater(); ++i) {
    sfl_BaseRec* r = files.At(i);
    if (r != nullptr && r->InUse == 1 && r->InColdStore == 0)
      sfl_CloseFile(sfl_FilesTable::kFirst + static_cast<int32_t>(i));
  }
  CloseColdFiles();
}

std::string OpenItemsText() {
  std::string out;
  sfl_ItemsTable& items = sfl_OpenItems();
  for (size_t i = 0; i < items.HighWater(); ++i) {
    sfl_ItemRec* r = items.At(i);
    if (r == nullptr || r->InUse != 1) continue;
    out += " [" + std::to_string(sfl_ItemsTable::kFirst + static_cast<int32_t>(i)) + " item " +
           std::to_string(r->ItemNum) + " flags " + std::to_string(r->Flags) + " refs " +
           std::to_string(r->OpenRefs) + "]";
  }
  return out;
}

}  // namespace sfltest
