"""sfl from Python: containers, items, blocked items and streams over the
library's C status forms.

    import sfl
    with sfl.Container.create() as c:
        with c.store(b"hello") as item:
            ref = item.ref                      # sfl.Ref; str(ref) is its text form
    with sfl.Item.open(ref) as item:
        assert item.read() == b"hello"

Containers, items and streams are context managers and close when the block
ends; close() may also be called, and closing twice does nothing. Failures
raise SflError with the escape's group, reason and text. Like the library,
one process uses these from one thread.
"""

import ctypes
import os
import re
import tempfile
from dataclasses import dataclass

from . import _capi
from ._capi import SflError, call

__all__ = ["SflError", "Ref", "Container", "Item", "BlockedItem", "Stream", "ItemInfo", "Block",
           "Finding", "CheckResult", "check", "compact", "exists",
           "TYPE_DATA_ITEM", "TYPE_TEMP_ITEM"]

TYPE_DATA_ITEM = 2
TYPE_TEMP_ITEM = 4
GROUP_CALL, GROUP_OS, GROUP_TABLE, GROUP_SFL, GROUP_CONFIG, GROUP_MAINT = 1, 2, 3, 100, 101, 204
COMPACT_OUTCOMES = {0: "done", 1: "failed", 2: "held", 3: "replaced"}


class Ref:
    """An item reference: a container file (item 0) or an item in it (1 to 7).
    Its text form is "Domain.SubDomain.FileId.Name[:item]"."""

    __slots__ = ("raw",)

    def __init__(self, raw=None):
        self.raw = _capi.ItemRef() if raw is None else raw

    @classmethod
    def parse(cls, text):
        r = cls()
        call("FormItemRef", text.encode(), ctypes.byref(r.raw))
        return r

    def __str__(self):
        buf = ctypes.create_string_buffer(96)
        call("ItemRef2Text", ctypes.byref(self.raw), buf, len(buf))
        return buf.value.decode()

    def __repr__(self):
        return f"sfl.Ref({str(self)!r})"

    def _key(self):
        r = self.raw
        return (r.Domain, r.Flags, r.SubDomain, r.FileId, bytes(r.Name).split(b"\0")[0])

    def __eq__(self, other):
        return isinstance(other, Ref) and self._key() == other._key()

    def __hash__(self):
        return hash(self._key())

    @property
    def item(self):
        return self.raw.Flags & 7

    @property
    def file(self):
        """The reference of the container file the item lies in."""
        r = Ref(_capi.ItemRef.from_buffer_copy(self.raw))
        r.raw.Flags &= ~7
        return r

    @property
    def path(self):
        """The file name the reference leads to in the store."""
        buf = ctypes.create_string_buffer(4096)
        call("ItemRef2FName", ctypes.byref(self.raw), buf, len(buf))
        return buf.value.decode()


def _as_ref(ref):
    return ref if isinstance(ref, Ref) else Ref.parse(str(ref))


class _Owned:
    """Owns one handle; closes it at the end of a `with` block, on close(),
    or when collected (a failure then is not raised: it is given up)."""

    _close = None

    def __init__(self, handle):
        self.handle = handle

    @property
    def closed(self):
        return self.handle is None

    def close(self):
        if self.handle is not None:
            call(self._close, self.handle)
            self.handle = None

    def _live(self):
        if self.handle is None:
            raise ValueError("operation on a closed " + type(self).__name__)
        return self.handle

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()
        return False

    def __del__(self):
        try:
            self.close()
        except Exception:  # nothing may leave a finaliser
            self.handle = None


@dataclass(frozen=True)
class ItemInfo:
    """One slot of a container's item table."""
    item: int
    in_use: bool
    valid: bool
    attach_count: int
    size: int
    used_blocks: int
    change_date: int
    offset: int
    index_depth: int
    flags: int

    @property
    def blocked(self):
        return bool(self.flags & 0x01)


@dataclass(frozen=True)
class Block:
    number: int
    offset: int
    size: int


class Item(_Owned):
    """An open item of contiguous data."""

    _close = "CloseItem"

    def __init__(self, handle, ref):
        super().__init__(handle)
        self.ref = ref

    @classmethod
    def open(cls, ref):
        ref = _as_ref(ref)
        return cls(call("OpenItem", ctypes.byref(ref.raw), 0), ref)

    def __len__(self):
        d = _capi.SimpleDetails()
        call("GetSimpleDetails", self._live(), ctypes.byref(d))
        return d.Size

    def read(self, position=0, length=None):
        """`length` bytes from `position` (to the end when None); the range
        must lie inside the item."""
        if length is None:
            length = len(self) - position
        buf = ctypes.create_string_buffer(max(length, 1))
        if length > 0:
            call("ReadSimpleData", self._live(), position, length, buf)
        return buf.raw[:length]

    def write(self, data, position=0):
        data = bytes(data)
        if data:
            call("WriteSimpleData", self._live(), position, len(data), data)
        return len(data)

    def truncate(self, size):
        call("TruncateSimItem", self._live(), size)

    def sync(self):
        call("SyncData", self._live())

    def delete(self):
        """Deletes the item (at once when no other process holds its file,
        else at the file's last close) and closes it."""
        call("DeleteItem", self._live())
        self.close()


class BlockedItem(_Owned):
    """An open blocked item: data in numbered blocks."""

    _close = "CloseItem"

    def __init__(self, handle, ref):
        super().__init__(handle)
        self.ref = ref

    @classmethod
    def open(cls, ref):
        ref = _as_ref(ref)
        return cls(call("OpenItem", ctypes.byref(ref.raw), 0), ref)

    def blocks(self, first=0, last=0xFFFFFFFF):
        """The blocks numbered `first` to `last`, in ascending order."""
        n = call("ListBlocks", self._live(), first, last, None, 0)
        arr = (_capi.BlockInfo * max(n, 1))()
        got = call("ListBlocks", self._live(), first, last, arr, n)
        return [Block(b.Block, b.Offset, b.Size) for b in arr[:min(got, n)]]

    def read_block(self, number):
        found = self.blocks(number, number)
        size = found[0].size if found else 1  # an absent block: the read says why
        buf = ctypes.create_string_buffer(max(size, 1))
        got = call("ReadBlockedData", self._live(), number, size, buf)
        return buf.raw[:got] if found else b""

    def write_block(self, number, data):
        data = bytes(data)
        return call("WriteBlockedData", self._live(), number, len(data), data)

    def free_block(self, number):
        call("FreeBlock", self._live(), number, 0)

    def compact(self):
        """Renumbers the blocks from 0 in their order; returns the last number."""
        return call("CompactBlockedItem", self._live())

    def reorder(self, frm, to):
        call("ReorderIndex", self._live(), frm, to)


class Stream(_Owned):
    """A stdio-like stream over one item: mode "r", "w" or "rw" ("w" does not
    truncate)."""

    _close = "fClose"

    @classmethod
    def open(cls, ref, mode="r"):
        ref = _as_ref(ref)
        return cls(call("fOpenItem", ctypes.byref(ref.raw), mode.encode()))

    def read(self, size):
        buf = ctypes.create_string_buffer(max(size, 1))
        n = call("fRead", buf, 1, size, self._live())
        return buf.raw[:n]

    def write(self, data):
        data = bytes(data)
        return call("fWrite", data, 1, len(data), self._live())

    def readline(self, limit=4096):
        buf = ctypes.create_string_buffer(limit + 1)
        if not call("fgets", buf, len(buf), self._live()):
            return b""
        return buf.value

    def __iter__(self):
        while True:
            line = self.readline()
            if not line:
                return
            yield line

    def seek(self, offset, whence=os.SEEK_SET):
        if call("fSeek", self._live(), offset, whence) != 0:
            raise OSError("seek refused")

    def tell(self):
        return call("fTell", self._live())


class Container(_Owned):
    """An open container file."""

    _close = "CloseFile"

    @classmethod
    def create(cls, type=TYPE_DATA_ITEM, flags=0):  # pylint: disable=redefined-builtin
        return cls(call("CreateSfl", 0, type, flags))

    @classmethod
    def open(cls, ref):
        ref = _as_ref(ref)
        return cls(call("OpenSfl", ctypes.byref(ref.raw), 0))

    @property
    def ref(self):
        r = Ref()
        call("GetSerFileItem", self._live(), ctypes.byref(r.raw))
        return r

    @property
    def flags(self):
        return call("GetFileFlags", self._live())

    def new_item(self, size):
        """A new zero-filled item of `size` bytes, open."""
        r = Ref()
        h = call("StoreBasicItem", self._live(), None, size, ctypes.byref(r.raw), 0)
        return Item(h, r)

    def store(self, data):
        """A new item holding `data`, open."""
        data = bytes(data)
        item = self.new_item(len(data))
        try:
            item.write(data)
        except BaseException:
            item.close()
            raise
        return item

    def new_blocked_item(self):
        r = Ref()
        b = BlockedItem(call("CreateBlockedItem", self._live(), ctypes.byref(r.raw)), r)
        call("FormatBlockedRoot", b.handle)
        return b

    def items(self):
        """The item table: one ItemInfo per slot."""
        arr = (_capi.ItemInfo * 8)()
        n = call("ListItems", self._live(), arr, 8)
        return [ItemInfo(s.ItemNum, bool(s.InUse), bool(s.Valid), s.AccCount, s.FileSize,
                         s.UsedBlocks, s.ChangeDate, s.FileOffset, s.IndexDepth, s.Flags)
                for s in arr[:min(n, 8)]]

    def dump(self, item=-1):
        """The records of the container as data: the file header, then each
        slot in use and, for a blocked item, its index records (with item
        0 to 7, that slot alone). Each record is a dict: "kind" ("file
        header", "item header" or "index record") and its fields by name,
        numbers as int; an index record's entries are under "entries", by
        entry number."""
        return _parse_dump(self.dump_text(item))

    def dump_text(self, item=-1):
        """The same dump as text, as the library writes it."""
        with tempfile.TemporaryFile() as f:
            fp = _capi.libc.fdopen(os.dup(f.fileno()), b"w")
            try:
                call("DumpContainer", fp, self._live(), item)
            finally:
                _capi.libc.fclose(fp)
            f.seek(0)
            return f.read().decode(errors="replace")


_DUMP_KINDS = {"H": "file header", "I": "item header", "X": "index record"}
_DUMP_MARK = re.compile(r"^=([HIX])\1+=$")
_DUMP_ENTRY = re.compile(r"^(\d+):(\w+)$")
_DUMP_NUMBER = re.compile(r"^(0x[0-9a-fA-F]+|-?\d+)(?: \(-?\d+\))?$")


def _dump_value(text):
    m = _DUMP_NUMBER.match(text)
    return int(m[1], 0) if m else text


def _parse_dump(text):
    records = []
    for line in text.splitlines():
        mark = _DUMP_MARK.match(line)
        if mark:
            records.append({"kind": _DUMP_KINDS[mark[1]]})
        elif records and "=" in line:
            key, value = (part.strip() for part in line.split("=", 1))
            entry = _DUMP_ENTRY.match(key)
            if entry:
                fields = records[-1].setdefault("entries", {}).setdefault(int(entry[1]), {})
                fields[entry[2]] = _dump_value(value)
            else:
                records[-1][key] = _dump_value(value)
    return records


# ---- maintenance ------------------------------------------------------------------------------

@dataclass(frozen=True)
class Finding:
    """One fault the check found: its message group and number, and text."""
    group: int
    number: int
    text: str


@dataclass(frozen=True)
class CheckResult:
    ok: bool
    findings: list

    def __bool__(self):
        return self.ok


_FINDING = re.compile(r"^SFL-(\d+)-(\d+): ?(.*)$")


def check(ref, repair=False):
    """Checks a container file. The findings the check prints on standard
    output are captured and returned, not printed."""
    ref = _as_ref(ref)
    with tempfile.TemporaryFile() as f:
        _capi.libc.fflush(None)
        saved = os.dup(1)
        os.dup2(f.fileno(), 1)
        try:
            result = call("CheckSflIntegrity2", ctypes.byref(ref.raw), 1 if repair else 0, None)
        finally:
            _capi.libc.fflush(None)
            os.dup2(saved, 1)
            os.close(saved)
        f.seek(0)
        lines = f.read().decode(errors="replace").splitlines()
    findings = []
    for line in lines:
        m = _FINDING.match(line)
        findings.append(Finding(int(m[1]), int(m[2]), m[3]) if m else Finding(0, 0, line))
    return CheckResult(result == 0, findings)


def compact(ref):
    """Rebuilds a container without holes: "done", "failed", "held" (another
    process holds it; marked for later) or "replaced"."""
    ref = _as_ref(ref)
    return COMPACT_OUTCOMES.get(call("CompactContainer", ctypes.byref(ref.raw)), "failed")


def exists(ref):
    ref = _as_ref(ref)
    return call("ItemExists", ctypes.byref(ref.raw)) != 0
