"""The library's C status forms (sfl_c.h) as ctypes functions.

Every form returns 0 or the reason of the escape it raised; `call` turns a
failure into SflError with this thread's last-error record. The library is
found through SFL_LIBRARY, else beside this package where it was installed,
else by the loader's usual search.
"""

import ctypes
import ctypes.util
import os
from ctypes import (POINTER, Structure, c_char, c_char_p, c_int, c_int32, c_long, c_size_t,
                    c_uint16, c_uint32, c_void_p)


class ItemRef(Structure):
    _fields_ = [("Domain", c_uint16), ("Flags", c_uint16), ("SubDomain", c_uint32),
                ("FileId", c_uint32), ("Name", c_char * 4)]


class ItemInfo(Structure):
    _fields_ = [(n, c_uint32) for n in ("ItemNum", "InUse", "Valid", "AccCount", "FileSize",
                                        "UsedBlocks", "ChangeDate", "FileOffset", "IndexDepth",
                                        "Flags")]


class BlockInfo(Structure):
    _fields_ = [("Block", c_uint32), ("Offset", c_uint32), ("Size", c_uint32)]


class SimpleDetails(Structure):
    _fields_ = [("FileDes", c_int32), ("Offset", c_uint32), ("Size", c_uint32),
                ("CurrPos", c_uint32)]


class LastError(Structure):
    _fields_ = [("group", c_int), ("reason", c_int), ("text", c_char_p), ("file", c_char_p),
                ("line", c_int)]


def _library_path():
    given = os.environ.get("SFL_LIBRARY")
    if given:
        return given
    try:
        from . import _install  # written when the package is installed
        beside = os.path.join(os.path.dirname(os.path.abspath(__file__)), _install.LIBRARY)
        if os.path.exists(beside):
            return beside
    except ImportError:
        pass
    return ctypes.util.find_library("sfl") or "libsfl.so.1"


lib = ctypes.CDLL(_library_path())
libc = ctypes.CDLL(None)
libc.fflush.argtypes = [c_void_p]
libc.fdopen.restype = c_void_p
libc.fdopen.argtypes = [c_int, c_char_p]
libc.fclose.argtypes = [c_void_p]

_REF = POINTER(ItemRef)
_I32 = POINTER(c_int32)
_U32 = POINTER(c_uint32)

# The forms this module uses: parameters, then the result's type (None when
# the function has none). The C names are sflc_<Name>.
_FORMS = {
    "FormItemRef": ([c_char_p, _REF], c_int32),
    "ItemRef2Text": ([_REF, c_char_p, c_size_t], c_int32),
    "ItemRef2FName": ([_REF, c_char_p, c_size_t], c_int32),
    "CreateSfl": ([c_uint32, c_int32, c_int32], c_int32),
    "OpenSfl": ([_REF, c_uint32], c_int32),
    "CloseFile": ([c_int32], None),
    "ListItems": ([c_int32, POINTER(ItemInfo), c_int32], c_int32),
    "GetSerFileItem": ([c_int32, _REF], None),
    "GetFileFlags": ([c_int32], c_uint32),
    "OpenItem": ([_REF, c_uint32], c_int32),
    "CloseItem": ([c_int32], None),
    "GetSimpleDetails": ([c_int32, POINTER(SimpleDetails)], None),
    "ItemExists": ([_REF], c_int32),
    "DeleteItem": ([c_int32], None),
    "StoreBasicItem": ([c_int32, _REF, c_uint32, _REF, c_uint32], c_int32),
    "ReadSimpleData": ([c_int32, c_uint32, c_uint32, c_void_p], c_int32),
    "WriteSimpleData": ([c_int32, c_uint32, c_uint32, c_void_p], c_int32),
    "TruncateSimItem": ([c_int32, c_uint32], None),
    "SyncData": ([c_int32], None),
    "fOpenItem": ([_REF, c_char_p], c_int32),
    "fClose": ([c_int32], None),
    "fRead": ([c_void_p, c_size_t, c_size_t, c_int32], c_size_t),
    "fWrite": ([c_void_p, c_size_t, c_size_t, c_int32], c_size_t),
    "fSeek": ([c_int32, c_int32, c_int32], c_int32),
    "fTell": ([c_int32], c_long),
    "fgets": ([c_void_p, c_int32, c_int32], c_void_p),
    "CreateBlockedItem": ([c_int32, _REF], c_int32),
    "FormatBlockedRoot": ([c_int32], c_int32),
    "ListBlocks": ([c_int32, c_uint32, c_uint32, POINTER(BlockInfo), c_uint32], c_uint32),
    "ReadBlockedData": ([c_int32, c_uint32, c_uint32, c_void_p], c_uint32),
    "WriteBlockedData": ([c_int32, c_uint32, c_uint32, c_void_p], c_int32),
    "FreeBlock": ([c_int32, c_uint32, c_int32], None),
    "CompactBlockedItem": ([c_int32], c_uint32),
    "ReorderIndex": ([c_int32, c_uint32, c_uint32], None),
    "CheckSflIntegrity2": ([_REF, c_int32, c_void_p], c_int32),
    "CompactContainer": ([_REF], c_int32),
    "DumpContainer": ([c_void_p, c_int32, c_int32], None),
}

for _name, (_params, _result) in _FORMS.items():
    _fn = getattr(lib, "sflc_" + _name)
    _fn.restype = c_int
    _fn.argtypes = _params + ([POINTER(_result)] if _result is not None else [])

lib.sflc_LastError.restype = POINTER(LastError)
lib.sflc_LastError.argtypes = []
lib.sflc_ClearError.argtypes = []
lib.sflc_ClearError.restype = None


class SflError(Exception):
    """An escape the library raised: its group, reason, text and source place."""

    def __init__(self, group, reason, text, file="", line=0):
        super().__init__(text)
        self.group = group
        self.reason = reason
        self.text = text
        self.file = file
        self.line = line


def call(name, *args):
    """Runs sflc_<name> with `args`; returns its result (None when it has
    none) or raises SflError."""
    _params, result_type = _FORMS[name]
    out = result_type() if result_type is not None else None
    full = args + ((ctypes.byref(out),) if out is not None else ())
    rc = getattr(lib, "sflc_" + name)(*full)
    if rc != 0:
        e = lib.sflc_LastError().contents
        raise SflError(e.group, e.reason, (e.text or b"").decode(errors="replace"),
                       (e.file or b"").decode(errors="replace"), e.line)
    return out.value if out is not None else None
