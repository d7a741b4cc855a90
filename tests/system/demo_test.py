#!/usr/bin/env python3
"""demo_test.py BIN: the demo goes through all its scenes, and tshark reads every field of its capture
as it is in the file. For use inside the sandbox. BIN has the programs. Ends with 77 where there is no
tshark."""

import pathlib
import shutil
import struct
import subprocess
import sys

BIN = pathlib.Path(sys.argv[1])
CAPTURE, DISSECTOR = pathlib.Path("/var/bus.pcapng"), "/var/msgapi.lua"
ENHANCED_PACKET, ACCEPTED, HEADER_IS_THERE = 6, 5, 2
BLOCK_HEAD, PACKET_HEAD, HEADER = 28, 96, 40
SKIPPED = 77


def expect(condition, what):
    if not condition:
        raise SystemExit(f"FAILED: {what}")


def text(field):
    return field.split(b"\0")[0].decode()


def packets():
    """The fields of each packet by tools/traffic/pcapng.h, with the dissector's names."""
    capture = CAPTURE.read_bytes()
    at = 0
    while at < len(capture):
        block, size = struct.unpack_from("<II", capture, at)
        if block == ENHANCED_PACKET:
            high, low, length = struct.unpack_from("<III", capture, at + 12)
            packet = capture[at + BLOCK_HEAD:at + BLOCK_HEAD + length]
            version, flags, _, sender, receiver, answers = struct.unpack_from("<HHI16s16sQ", packet)
            (_, kind, loss, kept, number, time_ns, from_id, to_id, about, a,
             b) = struct.unpack_from("<IBBHQQIIQII", packet, 48)
            fields = {"version": version, "masked": flags & 1, "from": text(sender), "to": text(receiver),
                      "answers": answers or "", "kind": kind, "loss": loss, "kept": kept, "number": number,
                      "time_ns": time_ns, "from_id": from_id, "to_id": to_id, "about": about, "a": a, "b": b}
            header = ["", "", "", "", "", ""]
            if flags & HEADER_IS_THERE:
                header = list(struct.unpack_from("<II12s12sII", packet, PACKET_HEAD))
                header[0] &= 0xfffff
                header[2:4] = text(header[2]), text(header[3])
            names = ("type", "sequence", "sender", "receiver", "data", "data_length")
            yield (high << 32) + low, fields | dict(zip(names, header))
        at += size


def as_tshark_reads(names):
    command = ["tshark", "-2", "-r", str(CAPTURE), "-X", f"lua_script:{DISSECTOR}", "-T", "fields",
               "-E", "separator=/t"]
    for name in names:
        command += ["-e", name]
    done = subprocess.run(command, capture_output=True, text=True, timeout=100, check=True,
                          env={"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "HOME": "/var"})
    return [line.split("\t") for line in done.stdout.splitlines()]


def plain(value):
    """The same text for a number in any notation, and for true as different versions write it."""
    value = {"True": "1", "False": "0"}.get(value, value)
    return str(int(value, 0)) if value[:1].isdigit() and value.replace("x", "").isalnum() else value


def main():
    subprocess.run([str(BIN / "demo.sh")], check=True)
    if not shutil.which("tshark"):
        print("skipped: the capture is not read back, because tshark is not installed")
        raise SystemExit(SKIPPED)
    written = list(packets())
    expect(len(written) > 10, f"the capture has {len(written)} packets")
    names = list(written[0][1])
    extra = ["frame.time_epoch", "msgapi.response_to", "_ws.malformed", "msgapi.malformed", "_ws.lua.error"]
    rows = as_tshark_reads([f"msgapi.{name}" for name in names] + extra)
    expect(len(rows) == len(written), f"tshark sees {len(rows)} of {len(written)} packets")
    frames, answers = {}, 0
    for frame, (row, (wall_ns, fields)) in enumerate(zip(rows, written), 1):
        for name, shown in zip(names, row):
            expect(plain(shown) == plain(str(fields[name])),
                   f"frame {frame}: {name} is '{fields[name]}', and tshark reads '{shown}'")
        epoch, request, *wrong = row[len(names):]
        seconds, _, fraction = epoch.partition(".")
        expect(int(seconds) * 10**9 + int(fraction.ljust(9, "0")) == wall_ns, f"frame {frame} is at {epoch}")
        expect(not any(wrong), f"frame {frame} is malformed: {wrong}")
        asked = frames.get(fields["answers"], "") if fields["kind"] == ACCEPTED else ""
        expect(request == str(asked), f"frame {frame} answers {asked}, and tshark says '{request}'")
        answers += request != ""
        if fields["kind"] == ACCEPTED:
            frames[fields["number"]] = frame
    expect(answers > 1, "nothing in the capture is answered")


main()
