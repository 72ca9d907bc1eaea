"""Store an item, read it back in another process, delete it: from Python
through the installed module `sfl`. Runs on the embedded defaults, so the
interest service is started on demand from the installed tree."""

import subprocess
import sys

import sfl

TEXT = b"stored through the installed Python module"

with sfl.Container.create() as c, c.store(TEXT) as item:
    ref = item.ref

# Another process opens the item by its reference (in text form) and reads it.
read = subprocess.run(
    [sys.executable, "-c",
     "import sys, sfl\n"
     "with sfl.Item.open(sys.argv[1]) as item:\n"
     "    sys.stdout.buffer.write(item.read())\n", str(ref)],
    capture_output=True, check=True)
assert read.stdout == TEXT, read

with sfl.Item.open(ref) as item:
    item.delete()
assert not sfl.exists(ref)
print("consumer.py: item stored, read back in another process, deleted")
