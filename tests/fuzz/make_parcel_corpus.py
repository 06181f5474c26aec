#!/usr/bin/env python3
"""Writes the seed inputs of parcel_fuzzer into corpus/parcel/ beside this script.

Byte 0 picks the reading: even, the rest is a parcel; odd, the rest is a transport frame.
The seeds are the shapes a binder peer really sends: interface tokens, strings, status
replies, flat binder objects, and CALL/REPLY frames carrying them.
"""
import os
import struct

HERE = os.path.dirname(os.path.abspath(__file__))
OUT = os.path.join(HERE, "corpus", "parcel")

TYPE_BINDER = 0x73622A85
TYPE_HANDLE = 0x73682A85
FRAME_MAGIC = 0x5A42564B
CALL, REPLY = 3, 4


def i32(value):
    return struct.pack("<i", value)


def string16(text):
    if text is None:
        return i32(-1)
    body = text.encode("utf-16-le") + b"\0\0"
    return i32(len(text)) + body + b"\0" * (-len(body) % 4)


def token(descriptor):
    return i32(-0x80000000) + i32(-1) + struct.pack("<I", 0x53595354) + string16(descriptor)


def flat(kind, flags, node, incarnation, stability):
    return struct.pack("<IIQQi", kind, flags, node, incarnation, stability)


def frame(kind, code, data, offsets=()):
    payload = data + b"".join(struct.pack("<I", o) for o in offsets)
    return struct.pack("<IIIIII", FRAME_MAGIC, kind, code, 0, len(payload), len(offsets)) + payload


PAVUNE = "com.veltra.pavune.IPavuneInterface"
STRANGER = flat(TYPE_HANDLE, 0x13, 7 << 32 | 1, 0x1234, 0x0C)

PARCELS = {
    "token_and_name": token(PAVUNE) + string16("com.miHoYo.hkrpg"),
    "null_and_empty_strings": string16(None) + string16(""),
    "scene_report": token(PAVUNE) + i32(1) + string16('{"sceneId":10005}'),
    "ok_reply_with_json": i32(0) + string16('{"configs":{}}'),
    "exception_reply": i32(-3) + string16("bad") + i32(0),
    "service_error_reply": i32(-8) + string16("x") + i32(0) + i32(42),
    "fat_reply_header": i32(-128) + i32(12) + i32(0) + i32(0) + i32(5),
    "null_binder": flat(TYPE_BINDER, 0x13, 0, 0, 0),
    "stranger_binder": token("com.veltra.pavune.IGameInfoUpdate") + STRANGER,
    "truncated_string": i32(9) + b"a\0",
}

FRAMES = {
    "call_with_token": frame(CALL, 30, token(PAVUNE) + string16("com.miHoYo.hkrpg")),
    "call_with_binder": frame(CALL, 35, token(PAVUNE) + string16("com.miHoYo.hkrpg_zovk") + STRANGER,
                              offsets=[len(token(PAVUNE) + string16("com.miHoYo.hkrpg_zovk"))]),
    "reply_with_binder": frame(REPLY, 0, i32(0) + STRANGER, offsets=[4]),
    "reply_bad_offset": frame(REPLY, 0, i32(0) + STRANGER, offsets=[2]),
}


def main():
    os.makedirs(OUT, exist_ok=True)
    for name, body in PARCELS.items():
        with open(os.path.join(OUT, "parcel_" + name), "wb") as f:
            f.write(b"\0" + body)
    for name, body in FRAMES.items():
        with open(os.path.join(OUT, "frame_" + name), "wb") as f:
            f.write(b"\1" + body)


if __name__ == "__main__":
    main()
