// A program built against the installed tree through the CMake package:
// stores an item in a new container, closes everything, opens the item
// again by its reference and reads the bytes back. Errors arrive as
// er_Escape exceptions. Runs on the embedded defaults, so the interest
// service is started on demand from the installed tree.
#include <cstdio>
#include <string>

#include <sfl.h>

int main() {
  const std::string text = "stored through the installed C++ package";
  const auto size = static_cast<uint32_t>(text.size());
  try {
    sfl_ItemRef ref{};
    int32_t base = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0);
    int32_t item = sfl_StoreBasicItem(base, nullptr, size, &ref, 0);
    if (item < SFL_ITEM_HANDLE_FIRST || sfl_WriteSimpleData(item, 0, size, text.data()) != int32_t(size)) {
      std::fprintf(stderr, "consumer.cpp: could not store the item\n");
      return 1;
    }
    sfl_CloseItem(item);
    sfl_CloseFile(base);

    item = sfl_OpenItem(&ref, 0);
    std::string back(text.size(), '\0');
    if (sfl_ReadSimpleData(item, 0, size, back.data()) != int32_t(size) || back != text) {
      std::fprintf(stderr, "consumer.cpp: the item did not read back as written\n");
      return 1;
    }
    sfl_CloseItem(item);
  } catch (const er_Escape& e) {
    std::fprintf(stderr, "consumer.cpp: %s\n", e.what());
    return 1;
  }
  std::printf("consumer.cpp: item stored and read back\n");
  return 0;
}
