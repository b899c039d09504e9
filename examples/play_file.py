#!/usr/bin/env python3
"""Plays one sound file on player 0 (two channels from system port 0) and
waits until it has played out, speaking the binary records over the socket.
Usage: play_file.py FILE"""
import os
import socket
import struct
import sys

SERVER = "/tmp/recorder_unix_socket_server"
REPLY = "/tmp/recorder_unix_socket_client"
SIZE = 3236                      # every record, header (28 bytes) and payload
PLAYER = 1                       # eType: 0 recorder, 1 player
CREATE, DELETE, START, COMPLETION, SETUP_PLAY_FILE = 1, 2, 4, 10, 16


def open_reply_socket():
    sock = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
    try:
        sock.bind(REPLY)
    except OSError:
        # A file left by a client that has gone can be removed; one whose
        # client still runs refuses a connection attempt less than that.
        probe = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        try:
            probe.connect(REPLY)
            sys.exit("another client holds " + REPLY)
        except ConnectionRefusedError:
            os.unlink(REPLY)
        finally:
            probe.close()
        sock.bind(REPLY)
    sock.settimeout(60)
    return sock


sock = open_reply_socket()
next_id = 0


def request(cmd, slot, payload=b""):
    """Sends one request; the result code of its answer."""
    global next_id
    next_id += 1
    msg = struct.pack("<7i", 0, SIZE, next_id, 0, PLAYER, cmd, slot) + payload
    sock.sendto(msg.ljust(SIZE, b"\0"), SERVER)
    while True:                  # progress messages may come first
        data = sock.recv(SIZE)
        nid, req, _, ecmd = struct.unpack_from("<4i", data, 8)
        if req == 1 and nid == next_id and ecmd == cmd:
            return struct.unpack_from("<I", data, 28)[0]


def wait_completion(slot):
    """File name and length in seconds of the player's next completion."""
    while True:
        data = sock.recv(SIZE)
        kind, cmd, index = struct.unpack_from("<Iii", data, 16)
        if cmd == COMPLETION and kind == PLAYER and index == slot:
            name = data[28:28 + 1028].split(b"\0")[0].decode()
            return name, struct.unpack_from("<I", data, 28 + 1028)[0]


try:
    result = request(CREATE, 0, struct.pack("<2i", 2, 0))
    if result == 0:
        setup = struct.pack("<i", 0) + os.fsencode(sys.argv[1]) + b"\0"
        result = request(SETUP_PLAY_FILE, 0, setup) or request(START, 0)
        if result == 0:
            print("played %s (%d s)" % wait_completion(0))
        request(DELETE, 0)
    if result:
        print("failed with result", result, file=sys.stderr)
    sys.exit(1 if result else 0)
finally:
    sock.close()
    os.unlink(REPLY)
