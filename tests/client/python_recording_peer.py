#!/usr/bin/python3
"""A peer written only from docs/ipc-wire-format.md, speaking the recording
service's protocols.

  python_recording_peer.py client SOCKET   an application on SVDaemonProtocol:
      reports itself active, starts a recording (and checks the answer), takes
      the service's stopRecordingWithError:movieURL: call, stops, and checks
      the stop's answer.
  python_recording_peer.py agent SOCKET    a consent agent on the shell
      channel: registers with its languages and answers one presentAlert:handler:
      with the first accept button.

Exit status 0 when every message was as documented."""
import array
import os
import socket
import sys

import cbor2

mode, path = sys.argv[1], sys.argv[2]
sock = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
sock.connect(path)


def send(envelope):
    envelope["v"] = 1
    envelope["n"] = 0
    sock.sendmsg([cbor2.dumps(envelope)])


def receive():
    data, ancdata, _, _ = sock.recvmsg(256 * 1024, socket.CMSG_SPACE(16 * 4))
    for level, kind, payload in ancdata:
        if level == socket.SOL_SOCKET and kind == socket.SCM_RIGHTS:
            fds = array.array("i")
            fds.frombytes(payload[: len(payload) - len(payload) % fds.itemsize])
            for fd in fds:
                os.close(fd)
    message = cbor2.loads(data)
    assert message["v"] == 1, message
    return message


def call(method, args):
    send({"t": 1, "m": method, "a": args})


def is_error(value, code):
    return (isinstance(value, dict) and value["domain"] == "org.sorvel.SVRecordingErrorDomain"
            and value["code"] == code and isinstance(value["userInfo"], dict))


if mode == "client":
    call("clientDidBecomeActiveWithBundleID:", ["org.example.python"])
    # The handler's position carries the reply identifier.
    call("startRecordingWindowLayerContextIDs:windowSize:microphoneEnabled:cameraEnabled:"
         "broadcast:systemRecording:withHandler:",
         [[3, 4], {"width": 640.0, "height": 480.0}, True, False, False, False, 1])
    reply = receive()
    assert reply["t"] == 2 and reply["r"] == 1 and reply["a"] == [None, True, False], reply

    stopped = receive()
    assert stopped["t"] == 1 and stopped["m"] == "stopRecordingWithError:movieURL:", stopped
    error, movie = stopped["a"]
    assert is_error(error, -5807), error
    assert movie == "file:///tmp/interrupted%20movie.mp4", movie

    call("stopRecordingWithStartClipDuration:endClipDuration:handler:", [1.0, 2, 7])
    reply = receive()
    assert reply["t"] == 2 and reply["r"] == 7, reply
    movie, error = reply["a"]
    assert movie is None and is_error(error, -5804), reply
    assert error["userInfo"]["SVLocalizedDescription"] == "Failed during recording", error
elif mode == "agent":
    call("registerConsentAgentWithPreferredLanguages:handler:", [["fr-CA", "fr"], 1])
    reply = receive()
    assert reply["t"] == 2 and reply["r"] == 1 and reply["a"] == [None], reply
    alert = receive()
    assert alert["t"] == 1 and alert["m"] == "presentAlert:handler:", alert
    content, reply_id = alert["a"]
    assert content["defaultButton"] and content["title"], content
    answer = "alternate" if content.get("alternateButton") else "other"
    send({"t": 2, "r": reply_id, "a": [answer]})
    # Stay until the service has the answer: it closes the connection.
    try:
        while receive():
            pass
    except (ConnectionResetError, cbor2.CBORDecodeError, EOFError):
        pass
else:
    sys.exit(2)
sys.exit(0)
