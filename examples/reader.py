#!/usr/bin/env python3
"""Lists and follows the hosts of the output, with nothing but Python's standard library.

    reader.py STATE_DIRECTORY [--list]

Prints one JSON object a line, as 'l2ribctl watch hosts --json' does; with --list it ends when the
present content is out. Written from docs/table-format.md, whose words are used here. It only reads,
needs no agent to run, and goes on when the next agent takes the tables over.

Python loads an aligned word of a memoryview in one piece, and x86-64 keeps the order of loads. On a
processor that does not, a reader needs loads with acquire order.
"""
import ctypes, ipaddress, json, mmap, os, select, struct, sys

MASK = (1 << 64) - 1
IN_MODIFY, IN_CLOSE_WRITE, IN_MOVED_TO, IN_CREATE = 0x2, 0x8, 0x80, 0x100  # linux/inotify.h
ATTEMPTS = 1 << 20


# --- hash


def mix64(x):
    x = (x ^ x >> 33) * 0xFF51AFD7ED558CCD & MASK
    x = (x ^ x >> 33) * 0xC4CEB9FE1A85EC53 & MASK
    return x ^ x >> 33


def combine(seed, value):
    return mix64((seed * 0x9E3779B97F4A7C15 + value) & MASK)


def hash_bytes(data):
    result = len(data)
    for at in range(0, len(data), 8):
        result = combine(result, int.from_bytes(data[at : at + 8], "little"))
    return result


def host_key_hash(key):
    mac, vlan = key
    return mix64(mac * 0x9E3779B97F4A7C15 & MASK ^ vlan * 0xD6E8FEB86659FD93 & MASK)


def host_key(record):  # the two bytes behind the address are ignored
    return int.from_bytes(record[:6], "big"), int.from_bytes(record[8:12], "little")


# --- the file


class Damaged(Exception):
    pass


def up(x, unit):
    return (x + unit - 1) // unit * unit


def pow2(x):
    return 1 << (x - 1).bit_length()


class Table:
    SUPERSEDED, PREDECESSOR, HIGH_WATER, INDEX_MOVES = 128 // 8, 144 // 8, 192 // 8, 208 // 8
    JOURNAL_HEAD, UNDO_SLOT, IMAGE = 216 // 8, 272 // 8, 280 // 8

    def __init__(self, path, type_name, collection, key_size, record_size, layout, key_of, key_hash,
                 is_sound=lambda record: True):
        self.path, self.key_of, self.key_hash, self.is_sound = path, key_of, key_hash, is_sound
        self.key_size, self.record_size = key_size, record_size
        with open(path, "rb") as file:
            true_size, head = os.fstat(file.fileno()).st_size, file.read(120)
            if len(head) < 120 or head[:8] != b"VEXILTBL":
                raise Damaged(path + ": is no shared table")
            fields = struct.unpack("<8sII48s16sIIIIQQQ", head)
            version, header_size, found_type, found_collection = fields[1:5]
            if version != 1:
                raise Damaged(f"{path}: format version {version}, expected 1")
            if fields[11] != hash_bytes(head[:112]):
                raise Damaged(path + ": the header is damaged")
            found = (found_type.rstrip(b"\0").decode(), found_collection.rstrip(b"\0").decode())
            if found + fields[5:7] != (type_name, collection, key_size, record_size):
                raise Damaged(f"{path}: holds {found[0]}, expected {type_name}")
            if fields[8] != hash_bytes(layout.encode()) & 0xFFFFFFFF:
                raise Damaged(path + ": its records have other members: it is of another version")
            self.capacity, file_size, self.table_id = fields[7], fields[9], fields[10]
            self.index_size = pow2(2 * max(self.capacity, 32))
            self.journal_size = pow2(max(self.capacity // 2, 1024))
            stride = up(8 + record_size, 8)
            self.slot_words = (stride if stride <= 64 else up(stride, 64)) // 8
            self.journal_words = (8 + up(key_size, 8)) // 8
            slots = up(4096 + 4 * self.index_size, 4096)
            journal = up(slots + self.capacity * self.slot_words * 8, 4096)
            wanted = up(journal + self.journal_size * self.journal_words * 8, 4096)
            if header_size != 4096 or file_size != wanted or true_size < wanted:
                raise Damaged(path + ": is cut short, or its header contradicts itself")
            self.slot_at, self.journal_at = slots // 8, journal // 8
            view = memoryview(mmap.mmap(file.fileno(), wanted, mmap.MAP_SHARED, mmap.PROT_READ))
        self.words, self.index = view.cast("Q"), view.cast("I")  # native, so in one piece
        self.slot_bits = self.capacity.bit_length()

    def record_at(self, slot):
        """The record in a slot, whole, or None."""
        at, size = self.slot_at + slot * self.slot_words, up(self.record_size, 8) // 8
        for _ in range(ATTEMPTS):
            state, record = self.words[at], None
            if state & 1:  # being written: the old record, if there is one
                if self.words[self.UNDO_SLOT] == slot + 1:
                    record = self.copy(self.IMAGE, size)
            elif state & 2:
                record = self.copy(at + 1, size)
            if self.words[at] == state:
                record = record and record[: self.record_size]
                return record if record and self.is_sound(record) else None
        raise Damaged(self.path + ": a record never stands still")

    def copy(self, at, size):
        return struct.pack(f"<{size}Q", *(self.words[at + i] for i in range(size)))

    def get(self, key):
        key_hash = self.key_hash(key)
        tag = key_hash << self.slot_bits & 0xFFFFFFFF
        mask = (1 << self.slot_bits) - 1
        for _ in range(ATTEMPTS):
            moves = self.words[self.INDEX_MOVES]
            place = key_hash >> (64 - self.index_size.bit_length() + 1)
            for _ in range(self.index_size):
                word = self.index[4096 // 4 + place]
                if word == 0:
                    break
                if word & ~mask == tag and (word & mask) - 1 < self.capacity:
                    record = self.record_at((word & mask) - 1)
                    if record and self.key_of(record) == key:
                        return record
                place = (place + 1) % self.index_size
            if self.words[self.INDEX_MOVES] == moves:
                return None
        raise Damaged(self.path + ": the index never stands still")

    def walk(self):
        for slot in range(min(self.words[self.HIGH_WATER], self.capacity)):
            if record := self.record_at(slot):
                yield record

    def journal(self, cursor):
        """Keys of some changes from the cursor on, or None for one who was overtaken."""
        head = self.words[self.JOURNAL_HEAD]
        if not 0 <= head - cursor < self.journal_size:
            return None
        keys = []
        for number in range(cursor, min(head, cursor + 256)):
            at = self.journal_at + number % self.journal_size * self.journal_words
            if self.words[at] != number:
                return None
            keys.append(self.key_of(self.copy(at + 1, self.journal_words - 1)))
        return keys if self.words[self.JOURNAL_HEAD] - cursor < self.journal_size else None


# --- following


class Follower:
    """Tells each row that is there, then each that appears, changes or goes: tell(key, row or None)."""

    def __init__(self, open_table, path, tell):
        self.open_table, self.path, self.tell, self.told = open_table, path, tell, {}
        self.libc = ctypes.CDLL(None, use_errno=True)
        self.inotify = self.libc.inotify_init1(os.O_NONBLOCK | os.O_CLOEXEC)
        self.watch(os.path.dirname(path), IN_CREATE | IN_MOVED_TO)
        self.table = open_table(path)
        self.cursor = self.table.words[Table.JOURNAL_HEAD]
        self.watch(path, IN_MODIFY | IN_CLOSE_WRITE)
        self.look_at_all()
        self.turn(False)

    def watch(self, path, events):
        if self.libc.inotify_add_watch(self.inotify, os.fsencode(path), events) < 0:
            raise OSError(ctypes.get_errno(), os.strerror(ctypes.get_errno()), path)

    def look_at_all(self):
        for key in list(self.told):
            self.look_at(key)
        for record in self.table.walk():
            self.look_at(self.table.key_of(record))

    def look_at(self, key):
        record = self.table.get(key)
        if record != self.told.get(key):
            if record:
                self.told[key] = record
            else:
                del self.told[key]
            self.tell(key, record)

    def start_over(self):
        self.cursor = self.table.words[Table.JOURNAL_HEAD]
        self.look_at_all()

    def go_over(self):
        try:
            newer = self.open_table(self.path)
        except FileNotFoundError:
            return False  # another one comes
        if newer.table_id == self.table.table_id:
            return False  # its writer is about to, or died
        goes_on = newer.words[Table.PREDECESSOR] == self.table.table_id
        self.table = newer
        self.watch(self.path, IN_MODIFY | IN_CLOSE_WRITE)
        if not goes_on:
            self.start_over()
        return True

    def turn(self, folder_changed):
        while True:
            look_there, folder_changed = folder_changed, False
            if (look_there or self.table.words[Table.SUPERSEDED]) and self.go_over():
                continue  # this one may be superseded too
            keys = self.table.journal(self.cursor)
            if keys is None:
                self.start_over()
            elif not keys:
                return
            else:
                self.cursor += len(keys)
                for key in keys:
                    self.look_at(key)

    def run(self, after_turn):
        ready = select.poll()
        ready.register(self.inotify, select.POLLIN)
        while True:
            ready.poll()
            events = os.read(self.inotify, 65536)
            name = os.fsencode(os.path.basename(self.path)) + b"\0"
            self.turn(name in events)  # what comes after the read keeps the descriptor readable
            after_turn()


# --- hosts

KEY_LAYOUT = "key 0 12 (mac 0 8, vlan 8 4)"
HOST_LAYOUT = (
    KEY_LAYOUT + ", host 12 100 (" + KEY_LAYOUT + ", seqNo 12 4, pref 16 4, updateTime 20 8, entryType 28 4, "
    "next 32 12 (objId 0 8, tableType 8 4), ciDest 44 56 (destType 0 4, payload 4 8, vtepCount 12 4, "
    "vtep 16 40)), source 112 4")
ENTRY_LAYOUT = (
    "name 0 64, source 64 4, initialized 68 4, hostPath 72 128, lbPath 200 128, labelPath 328 128, "
    "destPath 456 128, floodPath 584 128, hostLen 712 4, lbLen 716 4, labelLen 720 4, destLen 724 4")


def address(ip):
    family = int.from_bytes(ip[:4], "little")
    size = {2: 4, 10: 16}.get(family)
    return str(ipaddress.ip_address(ip[4 : 4 + size])) if size else "(unset)"


class SourceNames:
    """The names of the sources by their bits, from the sources' entries."""

    def __init__(self, state):
        self.folders = [f"{state}/bridging/l2Rib/{name}" for name in ("agentInputDir", "inputDir")]
        self.names = None

    def forget(self):
        self.names = None

    def of(self, source):
        if self.names is None:
            self.names = {}
            for folder in filter(os.path.isdir, self.folders):
                for name in os.listdir(folder):
                    self.read(f"{folder}/{name}", name)
        return self.names.get(source)

    def read(self, path, name):
        try:
            entry = Table(path, "L2Rib::SourceDirEntry", "entry", 64, 728, ENTRY_LAYOUT,
                          lambda record: record[:64], hash_bytes)
            record = entry.get(name.encode().ljust(64, b"\0"))
        except (Damaged, OSError):
            return
        if record:
            self.names[int.from_bytes(record[64:68], "little")] = name


def host_fields(row):
    source = int.from_bytes(row[112:116], "little")
    return struct.unpack("<IIdIQIiQI", row[24:72]) + (source,)


def host_is_sound(row):
    _, _, _, _, next_id, next_type, kind, _, count, source = host_fields(row)
    return (host_key(row) == host_key(row[12:]) and source.bit_count() == 1 and kind in (0, 1)
            and count <= 2 and (next_type in (1, 2, 3) if next_id else next_type == 0))


def host_json(names, key, row):
    (seq_no, pref, update_time, entry_type, next_id, next_type, kind, payload, count,
     source) = host_fields(row)
    vteps = [address(row[72 + 20 * i : 92 + 20 * i]) for i in range(count)]
    leads_on = {"type": {1: "lb", 2: "label", 3: "dest"}.get(next_type), "id": next_id}
    inline = {"value": payload} if kind == 0 else {"vteps": vteps}
    return {**key_json(key), "source": hex(source), "sourceName": names.of(source),
            "pref": pref, "seqNo": seq_no, "updateTime": update_time, "entryType": entry_type,
            "next": leads_on if next_id else None, "inline": None if next_id else inline}


def key_json(key):
    return {"mac": key[0].to_bytes(6, "big").hex(":"), "vlan": key[1]}


def main():
    if len(sys.argv) < 2 or sys.argv[2:] not in ([], ["--list"]):
        sys.exit(__doc__)
    state = sys.argv[1]
    names = SourceNames(state)

    def tell(key, row):
        print(json.dumps({"table": "hosts", "event": "set" if row else "del", "key": key_json(key),
                          "value": host_json(names, key, row) if row else None}))

    def after_turn():
        names.forget()  # sources come and go
        sys.stdout.flush()

    def open_table(path):
        return Table(path, "L2Rib::HostOutput", "host", 12, 116, HOST_LAYOUT, host_key, host_key_hash,
                     host_is_sound)

    try:
        follower = Follower(open_table, f"{state}/bridging/l2Rib/hostOutput", tell)
        print(json.dumps({"event": "inSync"}), flush=True)
        if len(sys.argv) == 2:
            follower.run(after_turn)
    except (Damaged, OSError) as failure:
        sys.exit(f"reader.py: {failure}")
    except KeyboardInterrupt:
        pass


if __name__ == "__main__":
    main()
