// Writes the seed inputs of the fuzz corpus (fuzz/corpus/<target>/) from
// containers the library itself makes: an empty container, simple items of
// several sizes, a blocked item with a two-level index, internal items, an
// item deleted while held, a single-item file, and a simple item laid out
// as an internal container; the item-reference texts and the service's
// request messages are written as the protocol and the text form give them.
// Run it from the test build with the corpus directory as argument when the
// format changes; its output is what the repository keeps.
//
//   build/fuzz/make_corpus fuzz/corpus
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "fuzz_env.h"
#include "ml.h"
#include "sfl_coding.h"

namespace {

std::string g_out;

std::vector<uint8_t> Bytes(size_t n, uint32_t seed) {
  std::vector<uint8_t> b(n);
  for (size_t i = 0; i < n; ++i) {
    seed = seed * 1103515245u + 12345u;
    b[i] = static_cast<uint8_t>(seed >> 16);
  }
  return b;
}

void Put(const std::string& target, const std::string& name, const std::vector<uint8_t>& data) {
  std::filesystem::create_directories(g_out + "/" + target);
  std::ofstream out(g_out + "/" + target + "/" + name, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(data.data()), static_cast<std::streamsize>(data.size()));
}

// The file under `bh` as it lies on disk now, as a seed of the three image
// targets (the check's copy with a last byte that asks for the repair).
void PutImage(int32_t bh, const std::string& name) {
  sfl_ItemRef ref{};
  sfl_GetSerFileItem(bh, &ref);
  char path[4096];
  im_ItemRef2FName(&ref, path, sizeof path);
  std::ifstream in(path, std::ios::binary);
  std::vector<uint8_t> image((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  Put("open_read", name, image);
  Put("dump", name, image);
  image.push_back(1);
  Put("check", name, image);
}

int32_t Simple(int32_t bh, uint32_t size, uint32_t seed) {
  sfl_ItemRef ref{};
  const int32_t h = sfl_StoreBasicItem(bh, nullptr, size, &ref, 0);
  const std::vector<uint8_t> data = Bytes(size, seed);
  if (size > 0) sfl_WriteSimpleData(h, 0, size, data.data());
  return h;
}

int32_t Blocked(int32_t bh, uint32_t blocks, uint32_t seed) {
  sfl_ItemRef ref{};
  const int32_t h = sfl_CreateBlockedItem(bh, &ref);
  sfl_FormatBlockedRoot(h);
  for (uint32_t b = 0; b < blocks; ++b) {
    const std::vector<uint8_t> data = Bytes(100 + 37 * (b % 9), seed + b);
    sfl_WriteBlockedData(h, b, static_cast<uint32_t>(data.size()), data.data());
  }
  return h;
}

void Images() {
  {
    const int32_t bh = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0);
    PutImage(bh, "empty-container");
    sfl_CloseFile(bh);
  }
  {
    const int32_t bh = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0);
    sfl_CloseItem(Simple(bh, 0, 1));
    sfl_CloseItem(Simple(bh, 100, 2));
    sfl_CloseItem(Simple(bh, 3000, 3));
    PutImage(bh, "simple-items");
    sfl_CloseFile(bh);
  }
  {
    const int32_t bh = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0);
    sfl_CloseItem(Simple(bh, 200, 4));
    sfl_CloseItem(Blocked(bh, 6, 10));
    PutImage(bh, "blocked-one-level");
    sfl_CloseFile(bh);
  }
  {
    const int32_t bh = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0);
    sfl_CloseItem(Blocked(bh, 40, 20));
    PutImage(bh, "blocked-two-levels");
    sfl_CloseFile(bh);
  }
  {
    const int32_t bh = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0);
    const int32_t parent = Simple(bh, 512, 30);
    const int32_t internal = sfl_CreateIntBItem(parent, 0, 128, 0);
    sfl_FormatBlockedRoot(internal);
    const std::vector<uint8_t> data = Bytes(90, 31);
    sfl_WriteBlockedData(internal, 0, static_cast<uint32_t>(data.size()), data.data());
    sfl_CloseIntItem(internal);
    sfl_CloseItem(parent);
    PutImage(bh, "internal-item");
    sfl_CloseFile(bh);
  }
  {
    const int32_t bh = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0);
    sfl_CloseItem(Simple(bh, 500, 40));
    const int32_t victim = Simple(bh, 700, 41);
    sfl_DeleteItem(victim);  // the file is still open: released at its final close
    PutImage(bh, "deleted-pending");
    sfl_CloseFile(bh);
  }
  {
    const int32_t bh = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0);
    // A simple item laid out as an internal container: the marker, then
    // eight item slots at +256, the first holding a zero-length item.
    const int32_t h = Simple(bh, 2048, 50);
    std::vector<uint8_t> data(2048, 0);
    sfl_PutU32(data.data(), 12345678u);
    sfl_PutU32(data.data() + 4, 3);
    sfl_PutU32(data.data() + 256, 12345678u);
    sfl_PutU32(data.data() + 260, 17);
    sfl_WriteSimpleData(h, 0, static_cast<uint32_t>(data.size()), data.data());
    sfl_CloseItem(h);
    PutImage(bh, "internal-container");
    sfl_CloseFile(bh);
  }
  {
    const int32_t bh = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, SINGLE_FILE);
    PutImage(bh, "single-item-file");
    sfl_CloseFile(bh);
  }
}

void Texts() {
  const char* texts[] = {"2.17.4113", "2.17.4113.abc:3", "4.0.1.x_-:7", "2.17.4113.abc:0",
                         "65535.4294967295.4294967295.zzz:1", "2.17.4113.a/b", "2.17..:3",
                         "2/17/4113.abc:3", "2/17/4113"};
  int n = 0;
  for (const char* t : texts)
    Put("itemref", "text-" + std::to_string(++n), std::vector<uint8_t>(t, t + std::strlen(t)));
}

// One message of the service target: text length, type word, text.
void Message(std::vector<uint8_t>& out, int32_t type, const std::vector<uint8_t>& text) {
  out.push_back(static_cast<uint8_t>(text.size()));
  uint8_t t[4];
  sfl_PutU32(t, static_cast<uint32_t>(type));
  out.insert(out.end(), t, t + 4);
  out.insert(out.end(), text.begin(), text.end());
}

std::vector<uint8_t> Request(size_t len, uint32_t ref, std::initializer_list<std::pair<size_t, uint32_t>> words) {
  std::vector<uint8_t> text(len, 0);
  sfl_PutU32(text.data() + 8, ref);
  for (const auto& [at, v] : words) sfl_PutU32(text.data() + at, v);
  return text;
}

void Messages() {
  std::vector<uint8_t> a;
  Message(a, ML_MSG_RECORD, Request(ML_RECORD_LEN, 5, {{16, 100}}));
  Message(a, ML_MSG_RECORD, Request(ML_RECORD_LEN, 5, {{16, 101}}));
  Message(a, ML_MSG_CHECK, Request(ML_CHECK_LEN, 5, {{16, 100}, {20, 1}}));
  Message(a, ML_MSG_WITHDRAW, Request(ML_WITHDRAW_LEN, 5, {{16, 1}, {20, 100}}));
  Message(a, ML_MSG_WITHDRAW, Request(ML_WITHDRAW_LEN, 5, {{16, 2}, {20, 100}}));
  Put("service_msg", "record-check-withdraw", a);
  std::vector<uint8_t> b;
  Message(b, ML_MSG_RECORD, Request(ML_RECORD_LEN, 9, {{16, 14}}));  // a process that has ended
  Message(b, ML_MSG_TICK, {});
  Message(b, ML_MSG_CHECK, Request(ML_CHECK_LEN, 9, {{16, 15}}));
  Message(b, ML_MSG_RECORD, Request(ML_RECORD_LEN - 1, 9, {{16, 15}}));
  Put("service_msg", "ended-tick-short", b);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: make_corpus <corpus directory>\n");
    return 2;
  }
  g_out = argv[1];
  sflfuzz::Init();
  try {
    Images();
  } catch (const er_Escape& e) {
    std::fprintf(stderr, "make_corpus: escape %d/%d\n", e.group(), e.reason());
    return 1;
  }
  Texts();
  Messages();
  return 0;
}
