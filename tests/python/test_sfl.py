"""The Python module: containers, items, blocked items and streams as
context managers, bytes in and out, references, errors carrying the
escape's group and reason, the check and the item table as data, and two
Python processes sharing one container."""

import subprocess
import sys
import textwrap

import pytest

import sfl


def run_python(code, *args):
    """Runs `code` in another Python process with this one's store and
    service; returns its standard output."""
    done = subprocess.run([sys.executable, "-c", textwrap.dedent(code), *args],
                          capture_output=True, text=True, timeout=60, check=False)
    assert done.returncode == 0, done.stderr
    return done.stdout


def test_store_and_read_back():
    with sfl.Container.create() as c:
        with c.store(b"hello, store") as item:
            ref = item.ref
            assert len(item) == 12
        assert c.ref == ref.file
    with sfl.Item.open(ref) as item:
        assert item.read() == b"hello, store"
        assert item.read(7, 5) == b"store"
    with sfl.Item.open(str(ref)) as item:  # the text form opens it too
        assert item.read() == b"hello, store"


def test_two_processes_share_a_container():
    with sfl.Container.create() as c:
        with c.store(b"from the first process") as item:
            ref = item.ref
        # The other process reads it, stores an item of its own in the same
        # container and tells its reference.
        out = run_python("""
            import sys, sfl
            ref = sfl.Ref.parse(sys.argv[1])
            with sfl.Item.open(ref) as item:
                data = item.read()
            with sfl.Container.open(ref.file) as c, c.store(data.upper()) as mine:
                print(mine.ref)
            """, str(ref))
        theirs = sfl.Ref.parse(out.strip())
        assert theirs.file == ref.file and theirs.item != ref.item
        with sfl.Item.open(theirs) as item:
            assert item.read() == b"FROM THE FIRST PROCESS"
        in_use = [s.item for s in c.items() if s.in_use]
        assert ref.item in in_use and theirs.item in in_use


def test_a_delete_waits_for_the_other_process():
    with sfl.Container.create() as c:
        with c.store(b"still here") as item:
            ref = item.ref
        with c.store(b"kept") as item:
            kept = item.ref
        # While this process holds the file, the other's delete is only
        # marked: the item opens no more, but its slot and space stay.
        run_python("""
            import sys, sfl
            with sfl.Item.open(sys.argv[1]) as item:
                item.delete()
            """, str(ref))
        with pytest.raises(sfl.SflError) as e:
            sfl.Item.open(ref)
        assert e.value.reason == 28864
        slot = c.items()[ref.item]
        assert slot.in_use and slot.flags & 0x08  # marked deleted
        file_ref = c.ref
    # This process's close was the file's last: the item is released.
    with sfl.Container.open(file_ref) as c:
        assert not c.items()[ref.item].in_use
        assert c.items()[kept.item].in_use


def test_errors_carry_group_reason_and_text():
    with pytest.raises(sfl.SflError) as e:
        sfl.Ref.parse("not a reference")
    assert e.value.group == sfl.GROUP_CONFIG and e.value.reason != 0
    assert "not a reference" in e.value.text
    assert e.value.file and e.value.line > 0

    with sfl.Container.create() as c:
        item = c.new_item(4)
        with pytest.raises(sfl.SflError) as e:
            item.read(2, 10)  # past the end
        assert e.value.group == sfl.GROUP_SFL
        assert str(e.value) == e.value.text
        assert item.read() == b"\0" * 4  # the item is still usable
        item.close()
    with pytest.raises(sfl.SflError) as e:
        sfl.Container.create(type=3)
    assert (e.value.group, e.value.reason) == (sfl.GROUP_CALL, 22)


def test_closing_twice_and_use_after_close():
    with sfl.Container.create() as c:
        item = c.store(b"x")
        item.close()
        item.close()
        assert item.closed
        with pytest.raises(ValueError):
            item.read()
    with pytest.raises(ValueError):
        c.items()


def test_item_write_truncate_delete():
    with sfl.Container.create() as c:
        item = c.new_item(8)
        assert item.write(b"abcd", 2) == 4
        assert item.write(bytearray(b"xy")) == 2
        assert item.read() == b"xyabcd\0\0"
        item.truncate(3)
        assert item.read() == b"xya"
        item.sync()
        ref = item.ref
        assert sfl.exists(ref)
        item.delete()
        assert item.closed
        assert not sfl.exists(ref)


def test_references():
    r = sfl.Ref.parse("2.17.4096.ab:3")
    assert (r.raw.Domain, r.raw.SubDomain, r.raw.FileId, r.item) == (2, 17, 4096, 3)
    assert str(r) == "2.17.4096.ab:3"
    assert str(r.file) == "2.17.4096.ab" and r.file.item == 0
    assert r.item == 3  # taking the file left the reference alone
    assert sfl.Ref.parse(str(r)) == r and hash(sfl.Ref.parse(str(r))) == hash(r)
    assert r != r.file
    assert r.path.endswith(r.path.rsplit("/", 1)[1]) and "/" in r.path
    assert repr(r) == "sfl.Ref('2.17.4096.ab:3')"


def test_blocked_items():
    with sfl.Container.create() as c:
        with c.new_blocked_item() as b:
            assert b.blocks() == []
            b.write_block(0, b"zero")
            b.write_block(4, b"four!")
            assert [(x.number, x.size) for x in b.blocks()] == [(0, 4), (4, 5)]
            assert b.read_block(4) == b"four!"
            with pytest.raises(sfl.SflError):
                b.read_block(2)
            assert b.compact() == 1
            b.reorder(1, 0)
            b.free_block(1)
            ref = b.ref
        with sfl.BlockedItem.open(ref) as b:
            assert [x.number for x in b.blocks()] == [0]
            assert b.read_block(0) == b"four!"
        info = c.items()[ref.item]
        assert info.in_use and info.blocked


def test_streams():
    with sfl.Container.create() as c:
        ref = c.new_item(14).ref
        with sfl.Stream.open(ref, "w") as s:
            assert s.write(b"first\nsecond\n") == 13
        with sfl.Stream.open(ref) as s:
            assert s.readline() == b"first\n"
            assert s.tell() == 6
            assert s.read(3) == b"sec"
            s.seek(0)
            assert list(s) == [b"first\n", b"second\n"]
        with pytest.raises(sfl.SflError) as e:
            sfl.Stream.open(ref, "a")
        assert e.value.reason == 28886


def test_check_dump_and_compact_return_data():
    with sfl.Container.create() as c:
        with c.store(b"kept") as kept:
            kept_item = kept.ref.item
        c.store(b"z" * 300).delete()
        ref = c.ref
    result = sfl.check(ref)
    assert result.ok and bool(result) and result.findings == []
    assert sfl.compact(ref) == "done"

    with sfl.Container.open(ref) as c:
        with c.new_blocked_item() as b:
            b.write_block(0, b"block")
            blocked_item = b.ref.item
        records = c.dump()
        assert records[0]["kind"] == "file header"
        assert records[0]["MaxItems"] == 8 and records[0]["HeaderSize"] == 128
        headers = [r for r in records if r["kind"] == "item header"]
        assert any(h["FileSize"] == 4 for h in headers)  # the item kept
        index = [r for r in records if r["kind"] == "index record"]
        assert index and index[0]["entries"][0]["SectionSize"] == 5
        one = c.dump(kept_item)
        assert [r["kind"] for r in one] == ["item header"] and one[0]["FileSize"] == 4
        assert "=HHHH" in c.dump_text()
        slots = c.items()
        assert len(slots) == 8 and sum(s.in_use for s in slots) >= 2
        assert all(isinstance(s, sfl.ItemInfo) for s in slots)
        assert slots[blocked_item].blocked and not slots[kept_item].blocked

    # A damaged file: its findings come back as data, not on standard output.
    with open(ref.path, "r+b") as f:
        f.seek(0)
        f.write(b"\0" * 8)  # the file header's magic and type
    result = sfl.check(ref)
    assert not result.ok
    assert result.findings
    assert all(isinstance(x, sfl.Finding) for x in result.findings)
    assert any(x.group == 204 and x.number > 0 for x in result.findings)

    with pytest.raises(sfl.SflError) as e:
        sfl.check(sfl.Ref.parse(str(ref) + ":1"))
    assert (e.value.group, e.value.reason) == (204, 1032)


def test_collected_objects_close():
    with sfl.Container.create() as c:
        item = c.store(b"dropped")
        handle = item.handle
        del item
        # Its handle was closed when it was collected, so the open-items
        # table hands the same entry out again.
        with c.store(b"next") as again:
            assert again.handle == handle
