#!/usr/bin/env python3
"""Runs `mivra` with real peers in the network, all on loopback: check_network.py MIVRA FOLDER-FOR-INPUTS"""

import json
import pathlib
import random
import re
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import threading
import time
import unittest

import relay_inputs

MIVRA = pathlib.Path(sys.argv[1])
INPUTS = relay_inputs.make(sys.argv[2])
FILM = INPUTS / "bframes.mp4"
STEPS = INPUTS / "steps.mkv"  # a key frame every 0.4 s
PACKET = 188
BEFORE = []  # words in front of the program's own, for another place to run it in


def free_port(kind=socket.SOCK_STREAM):
    with socket.socket(socket.AF_INET, kind) as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def start(*words, **options):
    options.setdefault("stdin", subprocess.DEVNULL)
    return subprocess.Popen([*BEFORE, MIVRA, *map(str, words)], stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                            **options)


def ffmpeg(*words, **options):
    return subprocess.Popen(["ffmpeg", "-nostdin", "-v", "error", "-y", *map(str, words)], stdout=subprocess.PIPE,
                            stderr=subprocess.PIPE, **options)


def packets(path):
    """Per stream: times relative to its first packet, sizes and key flags."""
    done = subprocess.run(["ffprobe", "-v", "error", "-of", "json", "-show_packets", "-show_entries",
                           "packet=codec_type,pts,dts,size,flags", path], capture_output=True, text=True)
    found = {"video": [], "audio": []}
    for packet in json.loads(done.stdout)["packets"]:
        of = found[packet["codec_type"]]
        of.append((packet["pts"], packet["dts"], int(packet["size"]), packet["flags"][:1]))
    return {kind: [(p - of[0][0], d - of[0][1], *rest) for p, d, *rest in of] for kind, of in found.items() if of}


def connect(port, receive_buffer=0, seconds=20, host="127.0.0.1"):
    """A plain client, as soon as somebody listens."""
    end = time.monotonic() + seconds
    while True:
        client = socket.socket()
        if receive_buffer:
            client.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
        client.settimeout(30)
        try:
            client.connect((host, port))
            return client
        except ConnectionRefusedError:
            client.close()
            if time.monotonic() > end:
                raise
            time.sleep(0.02)


def read_all(client):
    data = bytearray()
    with client:
        while part := client.recv(1 << 18):
            data += part
    return bytes(data)


def pids(data):
    return [struct.unpack(">H", data[at + 1:at + 3])[0] & 0x1FFF for at in range(0, len(data), PACKET)]


class Case(unittest.TestCase):
    def setUp(self):
        self.folder = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))

    def out(self, name):
        return self.folder / name

    def ends(self, process, code, *texts, timeout=40):
        try:
            output, errors = process.communicate(timeout=timeout)
        except subprocess.TimeoutExpired:
            process.kill()
            self.fail(("it does not end", process.args, process.communicate()))
        self.assertEqual(process.returncode, code, (process.args, output, errors))
        for text in texts:
            self.assertIn(text, errors.decode())
        return output.decode(), errors.decode()

    def by_file(self, film=FILM):
        """The bytes that the program writes into a file."""
        self.ends(start("relay", film, self.out("file.ts")), 0)
        return self.out("file.ts").read_bytes()

    def by_ffmpeg(self, film=FILM):
        self.ends(ffmpeg("-i", film, "-c", "copy", self.out("reference.ts")), 0)
        return packets(self.out("reference.ts"))

    def assert_joined(self, data):
        """Tables in front, then the beginning of a key frame; the packets from there on."""
        self.assertEqual(len(data) % PACKET, 0)
        self.assertEqual(set(data[::PACKET]), {0x47})
        self.assertEqual(pids(data[:3 * PACKET]), [0, 0x1000, 0x100])
        self.assertTrue(data[2 * PACKET + 1] & 0x40 and data[2 * PACKET + 5] & 0x40)
        self.out("joined.ts").write_bytes(data)
        found = packets(self.out("joined.ts"))
        self.assertEqual(found["video"][0][3], "K")
        return found

    def wait_until(self, text, table):
        """The kernel's table, of sockets, say, has the text."""
        end = time.monotonic() + 20
        while text not in pathlib.Path(table).read_text():
            self.assertLess(time.monotonic(), end)
            time.sleep(0.02)

    def receive_film(self, receiver, address, under_way=lambda: None):
        expected = self.by_file()
        receiver.settimeout(20)
        process = start("relay", FILM, address, "--rate", "4")
        pieces = [receiver.recv(65536)]
        under_way()
        while sum(map(len, pieces)) < len(expected):
            pieces.append(receiver.recv(65536))
        self.ends(process, 0)
        full = sum(len(piece) == 7 * PACKET for piece in pieces)  # the others have waited for long
        self.assertGreater(full, len(pieces) // 2)
        self.assertTrue(all(len(piece) <= 7 * PACKET and len(piece) % PACKET == 0 for piece in pieces))
        self.assertEqual(b"".join(pieces), expected)

    def assert_counters(self, data):
        last = {}
        for at in range(0, len(data), PACKET):
            pid = struct.unpack(">H", data[at + 1:at + 3])[0] & 0x1FFF
            if data[at + 3] & 0x10:
                if pid in last:
                    self.assertEqual(data[at + 3] & 0xF, (last[pid] + 1) & 0xF, (pid, at))
                last[pid] = data[at + 3] & 0xF


class Usage(Case):
    def test_wrong_addresses_are_2_and_say_what_to_write(self):
        cases = {
            "tcp://127.0.0.1": "no port: tcp://127.0.0.1; write tcp://HOST:PORT",
            "udp://:9": "no host",
            "http://host:80": "unknown kind of address: http://host:80; use tcp://",
            "tcp://h:0": "the port is no number from 1 to 65535",
            "udp://h:70000": "the port is no number from 1 to 65535",
            "tcp-listen://h:9x": "the port is no number",
            "tcp://[::1]:9": "IPv6",
            "tcp://h:9/path": "more than a host and a port",
            "tcp://h:9?interface=127.0.0.1": "unknown option",
            "udp://239.1.1.1:9?interface=eth0": "the interface is no IPv4 address",
            "udp://h:9?timeout=0": "the time-out is no whole number",
        }
        for address, text in cases.items():
            for words in [("relay", FILM, address), ("relay", address, self.out("x.ts")), ("probe", address)]:
                with self.subTest(words=words):
                    _, errors = self.ends(start(*words), 2, text)
                    self.assertRegex(errors, r"\Amivra: [^\n]+; [^\n]+\n\Z")
        self.ends(start("record", FILM, "-o", "udp://127.0.0.1:9", "--rotate", "5"), 2, "--rotate is for files")

    def test_what_cannot_be_opened_is_3(self):
        port = free_port()
        self.ends(start("relay", FILM, f"tcp://127.0.0.1:{port}"), 3, "nobody listens there")
        self.ends(start("relay", f"tcp://127.0.0.1:{port}", self.out("x.ts")), 3, "nobody listens there")
        self.ends(start("probe", "tcp://no.such.host.invalid:9"), 3, "no IPv4 address")
        with socket.create_server(("127.0.0.1", port)):
            self.ends(start("relay", FILM, f"tcp-listen://127.0.0.1:{port}"), 3, "nobody may listen there")
        self.ends(start("relay", FILM, f"udp://239.1.1.1:{port}?interface=192.0.2.1"), 3, "cannot open the output")
        self.assertFalse(self.out("x.ts").exists())


class Outputs(Case):
    def test_tcp_gets_what_a_file_gets(self):
        with socket.create_server(("127.0.0.1", 0)) as server:
            process = start("relay", FILM, f"tcp://127.0.0.1:{server.getsockname()[1]}", "--json")
            data = read_all(server.accept()[0])
        output, _ = self.ends(process, 0)
        self.assertEqual(data, self.by_file())
        self.assertEqual(json.loads(output.splitlines()[-1])["outputs"][0]["packets"], 361)
        self.assertEqual(packets(self.out("file.ts")), self.by_ffmpeg())

    def test_a_peer_that_goes_away_is_6(self):
        with socket.create_server(("127.0.0.1", 0)) as server:
            process = start("relay", FILM, f"tcp://127.0.0.1:{server.getsockname()[1]}", "--realtime", "--loop", "-1")
            peer = server.accept()[0]
            peer.recv(1)
            peer.close()
            _, errors = self.ends(process, 6, "the reader of the output went away: tcp://")
        self.assertEqual(len(errors.splitlines()), 1)

    def test_a_peer_that_takes_nothing_holds_back_until_it_is_stopped(self):
        with socket.create_server(("127.0.0.1", 0)) as server:
            process = start("relay", FILM, f"tcp://127.0.0.1:{server.getsockname()[1]}", "--loop", "2000")
            with server.accept()[0]:
                time.sleep(2)
                self.assertIsNone(process.poll())
                process.send_signal(signal.SIGINT)
                self.ends(process, 6, "the reader of the output takes nothing")

    def test_who_takes_nothing_keeps_no_other_output_open(self):
        with socket.create_server(("127.0.0.1", 0)) as stuck, socket.create_server(("127.0.0.1", 0)) as reading:
            first, second = (f"tcp://127.0.0.1:{each.getsockname()[1]}" for each in (stuck, reading))
            process = start("relay", FILM, first, "-o", second, "--loop", "-1")
            with stuck.accept()[0]:
                reader = reading.accept()[0]
                reader.settimeout(2)
                with self.assertRaises(TimeoutError):  # the other one is full
                    while reader.recv(1 << 18):
                        pass
                reader.settimeout(30)
                process.send_signal(signal.SIGINT)
                read_all(reader)
                self.assertIn(f":{stuck.getsockname()[1]:04X} 01 ", pathlib.Path("/proc/net/tcp").read_text())  # open
                self.ends(process, 6, "the reader of the output takes nothing")

    def test_a_datagram_that_has_begun_goes_although_nothing_follows(self):
        self.ends(start("relay", FILM, self.out("long.ts"), "--loop", "3"), 0)
        data = self.out("long.ts").read_bytes()
        with socket.create_server(("127.0.0.1", 0)) as server, socket.socket(type=socket.SOCK_DGRAM) as receiver:
            receiver.bind(("127.0.0.1", 0))
            receiver.settimeout(20)
            process = start("relay", f"tcp://127.0.0.1:{server.getsockname()[1]}",
                            f"udp://127.0.0.1:{receiver.getsockname()[1]}")
            with server.accept()[0] as source:
                source.sendall(data)
                while len(receiver.recv(65536)) == 7 * PACKET:
                    pass
            self.ends(process, 0)

    def test_datagrams_are_those_of_the_file(self):
        # The last: the engine takes it for a group.
        for host, options in [("127.0.0.1", ""), ("127.0.0.230", "")]:
            with self.subTest(host=host), socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as receiver:
                receiver.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4 << 20)
                receiver.bind((host, 0))
                self.receive_film(receiver, f"udp://{host}:{receiver.getsockname()[1]}{options}")

    def test_multicast_out(self):
        # The engine looks at the last number: the first it joins, the second the program does.
        for group in ["239.1.1.230", "239.1.1.7"]:
            with self.subTest(group=group), socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as receiver:
                receiver.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4 << 20)
                receiver.bind((group, 0))
                receiver.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP,
                                    socket.inet_aton(group) + socket.inet_aton("127.0.0.1"))
                self.receive_film(receiver, f"udp://{group}:{receiver.getsockname()[1]}?interface=127.0.0.1")


class Clients(Case):
    def test_late_clients_join_at_a_key_frame(self):
        port = free_port()
        process = start("relay", STEPS, f"tcp-listen://127.0.0.1:{port}", "--realtime", "--loop", "1", "--json",
                        "--stats", "0.5")
        got = {}

        def client(name, delay):
            time.sleep(delay)
            got[name] = read_all(connect(port))

        threads = [threading.Thread(target=client, args=(i, 0.7 * i)) for i in range(5)]
        for thread in threads:
            thread.start()
        connect(port).close()  # it is there
        player = ffmpeg("-i", f"tcp://127.0.0.1:{port}", "-c", "copy", self.out("player.ts"))
        for thread in threads:
            thread.join()
        output, errors = self.ends(process, 0)
        self.assertEqual(errors, "")
        self.ends(player, 0)
        whole = self.by_ffmpeg(STEPS)
        for data in got.values():
            found = self.assert_joined(data)
            for kind in found:
                sizes = [p[2:] for p in found[kind]]
                self.assertEqual(sizes, [p[2:] for p in 2 * whole[kind]][-len(sizes):])
        lengths = [len(got[i]) for i in sorted(got)]
        self.assertEqual(lengths, sorted(lengths, reverse=True))
        self.assertGreater(len(packets(self.out("player.ts"))["video"]), 80)
        lines = [json.loads(line) for line in output.splitlines()]
        figures = [line["figures"] for line in lines if line["event"] == "client"]
        self.assertRegex("; ".join(figures), r"sent [1-9]")
        for text in figures:
            self.assertRegex(text, r"\AStarted \d{4}-\d\d-\d\d \d\d:\d\d:\d\d UTC, last active \d+ s ago, "
                                   r"speed \d\.\d\dx, recv 0, sent \d+")

    def test_one_that_never_reads_is_disconnected_and_others_lose_nothing(self):
        port = free_port()
        # At a rate that fills the stuck client's queue within seconds, and that the others follow with ease.
        process = start("relay", FILM, f"tcp-listen://127.0.0.1:{port}", "--loop", "150", "--rate", "100")
        stuck = connect(port, receive_buffer=4096)
        got = []
        readers = [threading.Thread(target=lambda: got.append(read_all(connect(port)))) for _ in range(3)]
        for reader in readers:
            reader.start()
        for reader in readers:
            reader.join()
        _, errors = self.ends(process, 0, "a client is too slow and was disconnected: "
                              f"127.0.0.1:{stuck.getsockname()[1]}")
        self.assertEqual(len(errors.splitlines()), 1)
        stuck.close()
        for data in got:
            self.assertGreater(len(data), 10 << 20)
            self.assert_counters(data)

    def test_nobody_is_waited_for(self):
        begin = time.monotonic()
        self.ends(start("relay", FILM, f"tcp-listen://127.0.0.1:{free_port()}"), 0)
        self.assertLess(time.monotonic() - begin, 20)


class Inputs(Case):
    def test_a_publisher_over_tcp(self):
        port = free_port()
        process = start("relay", f"tcp-listen://127.0.0.1:{port}", self.out("in.ts"))
        self.publish(port)
        self.ends(process, 0)
        self.assertEqual(packets(self.out("in.ts")), self.by_ffmpeg())

    def publish(self, port):
        end = time.monotonic() + 20
        while time.monotonic() < end:
            done = subprocess.run(["ffmpeg", "-nostdin", "-v", "error", "-i", FILM, "-c", "copy", "-f", "mpegts",
                                   f"tcp://127.0.0.1:{port}"], capture_output=True)
            if done.returncode == 0:
                return
            time.sleep(0.1)
        self.fail("nobody listens")

    def test_from_a_server_slower_than_it_sends(self):
        with socket.create_server(("127.0.0.1", 0)) as server:
            address = f"tcp://127.0.0.1:{server.getsockname()[1]}"
            process = start("relay", address, self.out("in.ts"), "--rate", "4")
            data = self.by_file()
            with server.accept()[0] as peer:
                random.seed(5)
                while data:  # whatever the pieces
                    size = random.randint(1, 4000)
                    peer.sendall(data[:size])
                    data = data[size:]
        self.ends(process, 0)
        self.assertEqual(packets(self.out("in.ts")), self.by_ffmpeg())

    def test_probe_and_convert_read_the_network(self):
        data = self.by_file()
        for words in [("probe", "--json"), ("convert", self.out("sound.aac"), "--to", "adts")]:
            with self.subTest(words=words), socket.create_server(("127.0.0.1", 0)) as server:
                process = start(words[0], f"tcp://127.0.0.1:{server.getsockname()[1]}", *words[1:])
                with server.accept()[0] as peer:
                    try:
                        peer.sendall(data)
                    except (BrokenPipeError, ConnectionResetError):
                        pass  # it knows enough
                output, _ = self.ends(process, 0)
                if words[0] == "probe":
                    self.assertEqual([s["codec"] for s in json.loads(output)["streams"]], ["h264", "aac"])
        self.assertEqual(len(packets(self.out("sound.aac"))["audio"]), 236)

    def test_datagrams_and_silence(self):
        # Unicast, a group that the engine joins, and one that it does not.
        for host, options in [("127.0.0.1", ""), ("239.1.2.224", "&interface=127.0.0.1"),
                              ("239.1.2.3", "&interface=127.0.0.1")]:
            with self.subTest(host=host):
                port = free_port(socket.SOCK_DGRAM)
                output = self.out(f"{host}.ts")
                process = start("relay", f"udp://{host}:{port}?timeout=2{options}", output)
                self.wait_until(f":{port:04X} ", "/proc/net/udp")
                local = "&localaddr=127.0.0.1" if options else ""
                self.ends(ffmpeg("-re", "-t", "2", "-i", FILM, "-c", "copy", "-f", "mpegts",
                                 f"udp://{host}:{port}?pkt_size=1316{local}"), 0)
                self.ends(process, 4, "capture timeout: the input has brought nothing for 2 s: udp://")
                whole = self.by_ffmpeg()
                found = packets(output)
                for kind in found:
                    self.assertGreater(len(found[kind]), 40)
                    self.assertEqual(found[kind], whole[kind][:len(found[kind])])

    def test_ctrl_c_while_nobody_publishes(self):
        for words in [("relay", "{}", self.out("x.ts")), ("record", "{}", "-o", self.out("y.ts"), "--trigger", "after:0"), ("probe", "{}")]:
            port = free_port()
            process = start(*[str(word).format(f"tcp-listen://127.0.0.1:{port}") for word in words])
            self.wait_until(f":{port:04X} ", "/proc/net/tcp")
            time.sleep(0.2)
            process.send_signal(signal.SIGINT)
            _, errors = process.communicate(timeout=10)
            self.assertEqual((process.returncode, errors.count(b"\n")), (3, 1) if words[0] == "probe" else (0, 0), errors)

    def test_a_recording_from_and_into_the_network(self):
        with socket.create_server(("127.0.0.1", 0)) as server:
            port = free_port()
            process = start("record", f"tcp-listen://127.0.0.1:{port}", "-o",
                            f"tcp://127.0.0.1:{server.getsockname()[1]}", "--trigger", "after:0")
            threading.Thread(target=self.publish, args=(port,)).start()
            data = read_all(server.accept()[0])
        self.ends(process, 0)
        self.out("recorded.ts").write_bytes(data)
        self.assertEqual([p[2:] for p in packets(self.out("recorded.ts"))["video"]],
                         [p[2:] for p in self.by_ffmpeg()["video"]])


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1] + sys.argv[3:], verbosity=2, warnings="error")
