// Store an item, read it back in another process, delete it: from C++
// through sfl.hpp, against the installed tree (find_package(sfl)). Errors
// arrive as escapes (sfl::Escape). Runs on the embedded defaults, so the
// interest service is started on demand from the installed tree.
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include <sfl.hpp>

int main() {
  const std::string text = "stored through the installed C++ package";
  try {
    sfl::Ref ref;
    {
      sfl::Container c = sfl::Container::Create();
      sfl::Item item = c.Store(text);
      ref = item.Reference();
    }  // both closed here

    // Another process opens the item by its reference (in text form) and reads it.
    const std::string refText = ref.Text();
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
      try {
        sfl::Item item = sfl::Item::Open(sfl::Ref::Parse(refText));
        _exit(item.ReadText() == text ? 0 : 2);
      } catch (const sfl::Escape& e) {
        std::fprintf(stderr, "consumer.cpp (child): %s\n", e.what());
        _exit(1);
      }
    }
    int status = -1;
    if (pid < 0 || waitpid(pid, &status, 0) != pid || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
      std::fprintf(stderr, "consumer.cpp: the other process did not read the item back\n");
      return 1;
    }

    sfl::Item::Open(ref).Delete();
    if (sfl::Exists(ref)) {
      std::fprintf(stderr, "consumer.cpp: still there after the delete\n");
      return 1;
    }
  } catch (const sfl::Escape& e) {
    std::fprintf(stderr, "consumer.cpp: %s\n", e.what());
    return 1;
  }
  std::printf("consumer.cpp: item stored, read back in another process, deleted\n");
  return 0;
}
