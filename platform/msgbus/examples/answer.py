#!/usr/bin/python3
"""Plays the configuration store on the message bus: answer.py [PATH=VALUE...]

Speaks the frames themselves (msgbus.h): a packed header of 17 bytes and the payload.
"""
import json
import os
import socket
import struct
import sys

HEADER = struct.Struct("=BBBBIIIB")  # magic, version, src, dst, length, seq, uid, type
MAGIC, VERSION, DATA, ATTACH, MODULE = 0xB5, 1, 0, 1, 1


def send(bus, kind, dst=0, payload=b"", seq=1):
    bus.write(HEADER.pack(MAGIC, VERSION, MODULE, dst, len(payload), seq, 0, kind) + payload)
    bus.flush()


values = dict(pair.split("=", 1) for pair in sys.argv[1:])
connection = socket.socket(socket.AF_UNIX)
connection.connect(os.environ.get("MSGBUS_SOCKET") or "/var/run/msgbus.sock")
bus = connection.makefile("rwb")
send(bus, ATTACH)
while header := bus.read(HEADER.size):
    _, _, src, _, length, seq, _, kind = HEADER.unpack(header)
    payload = bus.read(length)
    if kind == ATTACH:
        print(f"answering as module {MODULE}", flush=True)
    elif kind == DATA:
        value = values.get(json.loads(payload).get("path"))
        answer = {"command": "get-response", "value": value}
        send(bus, DATA, dst=src, payload=json.dumps(answer).encode(), seq=seq)
sys.exit("answer: the broker has hung up")
