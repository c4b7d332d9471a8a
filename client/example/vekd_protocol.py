#!/usr/bin/env python3
"""vekd_protocol.py: vekd's protocol without a library, in fifty lines. See vekd-protocol(7) for every field.

    vekd_protocol.py login|logout SERVICE NAME KEY
    vekd_protocol.py follow [NUMBER]    who is logged in, and then what happens"""
import socket, struct, sys

LOGIN, LOGOUT, ANSWER = 1, 4, 11            # event numbers
QUERY_ALL, LISTEN, COUNT = 4, 5, 6          # methods of a request
# event, count, sub_event, service, username, real_username, define_name, unique, ip, attribute, type
EVENT = struct.Struct("=3i32s64s64s64s65s3x4s8x2B818x")
SESSION = struct.Struct("=32s64s64s65s743x")  # service, username (the account), virtual_username, unique
REQUEST = struct.Struct("=i64xI")             # method, req_flags


def connect(path):
    connection = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    connection.settimeout(5)
    connection.connect(path)
    return connection


def take(connection, size):  # a record may arrive in parts
    record = b""
    while len(record) < size:
        if not (part := connection.recv(size - len(record))):
            sys.exit("vekd closed the connection")
        record += part
    return record


def show(what, *fields):
    print(what, *(field.split(b"\0")[0].decode(errors="backslashreplace") for field in fields), flush=True)


def report(number, service, name, key):
    account = name  # which a logout finds by `username`; a login may show another name there
    record = EVENT.pack(number, 0, 0, service, name, account, b"", key, bytes(4), 0, 1)
    vekd = connect("/dev/user-notify")
    vekd.sendall(record)
    return struct.unpack("=i", take(vekd, 4))[0]  # 0, or 1: refused, or nobody matched


def follow(number):
    copies, vekd = connect("/dev/user-request"), connect("/dev/user-request")
    for method in LISTEN, COUNT:  # the count's answer says that the subscription before it is in force
        copies.sendall(REQUEST.pack(method, 0))
    early = []
    while EVENT.unpack(record := take(copies, EVENT.size))[0] != ANSWER:
        early.append(record)
    take(copies, 4)
    vekd.sendall(REQUEST.pack(QUERY_ALL, 0))  # only now: nothing is missed in between
    for _ in range(EVENT.unpack(take(vekd, EVENT.size))[1]):
        show("logged in:", *SESSION.unpack(take(vekd, SESSION.size)))
    copies.settimeout(None)
    for _ in range(number):
        event = EVENT.unpack(early.pop(0) if early else take(copies, EVENT.size))
        show(f"event {event[0]}:", event[3], event[5], event[7])


if sys.argv[1:2] == ["follow"]:
    follow(int((sys.argv + [sys.maxsize])[2]))
elif len(sys.argv) == 5 and sys.argv[1] in ("login", "logout"):
    sys.exit(report(LOGIN if sys.argv[1] == "login" else LOGOUT, *map(str.encode, sys.argv[2:])))
else:
    sys.exit(__doc__)
