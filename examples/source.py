#!/usr/bin/env python3
"""A source in Python: JSON lines into 'l2ribctl source run', which publishes them.

    source.py L2RIBCTL STATE_DIRECTORY

Publishes a destination, a group, and a host that is reached through it, then the host alone by
another VTEP, and withdraws everything at the end of its input. See docs/writing-a-source.md.
"""
import json, subprocess, sys


class Source:
    """One source. What it has published is withdrawn when it is closed, or kept with keep=True."""

    def __init__(self, l2ribctl, state, name, value, keep=False):
        command = [l2ribctl, "--state-dir", state, "source", "run", name, "--value", hex(value)]
        self.process = subprocess.Popen(command + ["--keep"] * keep, stdin=subprocess.PIPE,
                                        stdout=subprocess.PIPE, text=True)

    def op(self, op, **fields):
        self.process.stdin.write(json.dumps({"op": op, **fields}) + "\n")

    def sync(self):
        """Returns when all operations so far are in the tables. What was rejected stands on stderr."""
        self.op("sync")
        self.process.stdin.flush()
        if not self.process.stdout.readline():
            raise RuntimeError("the source was refused, or its process ended")

    def close(self):
        """0, or 3 when some operation was rejected."""
        self.process.stdin.close()
        return self.process.wait()


def main():
    l2ribctl, state = sys.argv[1:3]
    source = Source(l2ribctl, state, "example", 0x400)
    # Between begin and end comes all that the source knows: what an earlier run left and this one
    # does not name is deleted, what is unchanged is not written again.
    source.op("begin")
    source.op("dest", id=1, vxlan={"vtep": "192.0.2.1", "vni": 10010})
    source.op("lb", id=7, nexts=[{"type": "dest", "id": 1}])
    source.op("host", mac="02:00:00:00:00:01", vlan=10, next={"type": "lb", "id": 7})
    source.op("end")
    source.op("initialized", value=True)  # the first copy is complete
    source.sync()
    print("published", flush=True)
    sys.stdin.readline()  # a real source would wait for what it learns

    source.op("host", mac="02:00:00:00:00:01", vlan=10, seqNo=1, inline={"vteps": ["192.0.2.2"]})
    source.sync()
    print("moved", flush=True)
    sys.stdin.readline()
    sys.exit(source.close())


if __name__ == "__main__":
    main()
