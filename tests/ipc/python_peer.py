#!/usr/bin/python3
"""A peer written only from docs/ipc-wire-format.md: calls the test service's
hello:, echo:withReply: and readFile:withReply: (passing a read-only file
descriptor) and checks the replies. Exit status 0 on success."""
import array
import os
import socket
import sys

import cbor2

sock = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
sock.connect(sys.argv[1])


def send(envelope, fds=()):
    envelope["v"] = 1
    envelope["n"] = len(fds)
    ancillary = [(socket.SOL_SOCKET, socket.SCM_RIGHTS, array.array("i", fds))] if fds else []
    sock.sendmsg([cbor2.dumps(envelope)], ancillary)


def receive():
    data, ancdata, flags, _ = sock.recvmsg(256 * 1024, socket.CMSG_SPACE(16 * 4))
    fds = array.array("i")
    for level, kind, payload in ancdata:
        if level == socket.SOL_SOCKET and kind == socket.SCM_RIGHTS:
            fds.frombytes(payload[: len(payload) - len(payload) % fds.itemsize])
    for fd in fds:
        os.close(fd)
    return cbor2.loads(data)


send({"t": 1, "m": "hello:", "a": [os.getpid()]})

send({"t": 1, "m": "echo:withReply:", "a": [{"from": "python", "list": [1, 2.5, None]}, 1]})
reply = receive()
assert reply["t"] == 2 and reply["r"] == 1, reply
assert reply["a"] == [{"from": "python", "list": [1, 2.5, None]}], reply

with open(__file__, "rb") as f:
    expected = f.read(4096)
    send({"t": 1, "m": "readFile:withReply:", "a": [{"$object": "file", "index": 0}, 2]}, [f.fileno()])
reply = receive()
assert reply["r"] == 2 and reply["a"] == [expected], reply
sys.exit(0)
