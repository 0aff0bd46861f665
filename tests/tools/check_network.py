#!/usr/bin/env python3
"""Runs `mivra` with real peers in the network, all on loopback: check_network.py MIVRA FOLDER-FOR-INPUTS [TEST...]"""

import fcntl
import json
import os
import pathlib
import random
import signal
import socket
import struct
import termios
import time
from concurrent import futures

import packets
import program
from program import INPUTS, ffmpeg

FILM = INPUTS / "bframes.mp4"
STEPS = INPUTS / "steps.mkv"  # a key frame every 0.4 s
PACKET = 188
NARROW = 536  # a segment size that keeps the buffers of both ends small


def free_port(kind=socket.SOCK_STREAM):
    with socket.socket(socket.AF_INET, kind) as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def seen(path):
    """Of each stream its packets, with times from those of its first one (in 1/90000 s)."""
    ticks = lambda time, first: round((time - first) * 90000)
    return [[(ticks(p.pts, of[0].pts), ticks(p.dts, of[0].dts), p.key, p.data) for p in of] for of in packets.of(path)]


def contents(path):
    return [[p.data for p in of] for of in packets.of(path)]


def connect(port, host="127.0.0.1", narrow=False):
    """A plain client, as soon as somebody listens."""
    end = time.monotonic() + 60
    while True:
        client = socket.socket()
        if narrow:
            client.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
            client.setsockopt(socket.IPPROTO_TCP, socket.TCP_MAXSEG, NARROW)
        client.settimeout(60)
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


class Case(program.Case):
    def listen(self, narrow=False):
        """A plain server, and its address in the program's words."""
        server = self.enterContext(socket.create_server(("127.0.0.1", 0)))
        if narrow:
            server.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
            server.setsockopt(socket.IPPROTO_TCP, socket.TCP_MAXSEG, NARROW)
        server.settimeout(60)
        return server, f"tcp://127.0.0.1:{server.getsockname()[1]}"

    def read_beside(self, client):
        """Reads all of it; calling what is given back waits for that, and tells what there was."""
        pool = futures.ThreadPoolExecutor(1)
        future = pool.submit(read_all, client)
        pool.shutdown(wait=False)
        return future.result

    def by_file(self, film=FILM, *words):
        """The bytes that the program writes into a file."""
        self.ends(program.mivra("relay", film, self.out("file.ts"), *words), 0)
        return self.out("file.ts").read_bytes()

    def by_ffmpeg(self, film=FILM):
        ffmpeg("-i", film, "-c", "copy", self.out("reference.ts"))
        return seen(self.out("reference.ts"))

    def await_listener(self, port, times=1):
        self.wait_until(f"0100007F:{port:04X} 00000000:0000 0A", "/proc/net/tcp", times)

    def publish(self, port):
        self.await_listener(port)
        ffmpeg("-i", FILM, "-c", "copy", "-f", "mpegts", f"tcp://127.0.0.1:{port}")

    def assert_joined(self, data):
        """Tables in front, then the beginning of a key frame; what follows."""
        self.assertEqual(len(data) % PACKET, 0)
        self.assertEqual(set(data[::PACKET]), {0x47})
        self.assertEqual(pids(data[:3 * PACKET]), [0, 0x1000, 0x100])
        self.assertTrue(data[2 * PACKET + 1] & 0x40 and data[2 * PACKET + 5] & 0x40)
        self.out("joined.ts").write_bytes(data)
        self.assertTrue(packets.of(self.out("joined.ts"))[0][0].key)
        return contents(self.out("joined.ts"))

    def wait_until(self, text, table, times=1):
        """The kernel's table, of sockets, say, has the text so many times or more, or (0) not at all."""
        end = time.monotonic() + 60
        while (found := pathlib.Path(table).read_text().count(text)) < times or found > times == 0:
            self.assertLess(time.monotonic(), end)
            time.sleep(0.02)

    def receive_film(self, receiver, address, under_way=lambda: None):
        expected = self.by_file()
        receiver.settimeout(60)
        process = self.start("relay", FILM, address, "--rate", "4")
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
            "tcp://::1:9": "IPv6",
            "tcp://h:9/path": "more than a host and a port",
            "tcp://h:9#part": "more than a host and a port",
            "tcp://h:9?interface=127.0.0.1": "unknown option",
            "udp://239.1.1.1:9?interface=eth0": "the interface is no IPv4 address",
        }
        for address, text in cases.items():
            for words in [("relay", FILM, address), ("relay", address, self.out("x.ts")), ("probe", address)]:
                with self.subTest(words=words):
                    self.ends(program.mivra(*words), 2, text)
        here, there = "tcp-listen://127.0.0.1:9", "udp://127.0.0.1:9"
        for words, text in [(("record", FILM, "-o", there, "--rotate", "5"), "--rotate is for files"),
                            (("probe", there + "?timeout=0"), "the time-out is no whole number"),
                            (("relay", FILM, there + "?timeout=3"), "?timeout=SECONDS (of inputs)"),
                            (("relay", FILM, there, "-o", there), "the address is given twice"),
                            (("relay", here + "?timeout=3", here), "the address is given twice")]:
            with self.subTest(words=words):
                self.ends(program.mivra(*words), 2, text)

    def test_what_cannot_be_opened_is_3(self):
        port = free_port()
        relay = lambda *words: program.mivra("relay", *words)
        self.ends(relay(FILM, f"tcp://127.0.0.1:{port}"), 3, "nobody listens there")
        self.ends(relay(f"tcp://127.0.0.1:{port}", self.out("x.ts")), 3, "nobody listens there")
        self.ends(program.mivra("probe", "tcp://no.such.host.invalid:9"), 3, "no IPv4 address")
        with socket.create_server(("127.0.0.1", port)):
            self.ends(relay(FILM, f"tcp-listen://127.0.0.1:{port}"), 3, "nobody may listen there")
        self.ends(relay(FILM, f"udp://239.1.1.1:{port}?interface=192.0.2.1"), 3, "cannot open the output")
        self.assertFalse(self.out("x.ts").exists())


class Outputs(Case):
    def test_tcp_gets_what_a_file_gets(self):
        server, address = self.listen()
        process = self.start("relay", FILM, address, "--json")
        data = read_all(server.accept()[0])
        output = self.ends(process, 0).stdout
        self.assertEqual(data, self.by_file())
        self.assertEqual(json.loads(output.splitlines()[-1])["outputs"][0]["packets"], 361)
        self.assertEqual(seen(self.out("file.ts")), self.by_ffmpeg())

    def test_a_peer_slower_than_the_relay_gets_all(self):
        server, address = self.listen(narrow=True)
        process = self.start("relay", FILM, address, "--loop", "4")
        data = bytearray()
        with server.accept()[0] as peer:
            while part := peer.recv(4096):
                data += part
                time.sleep(0.001)
        self.ends(process, 0)
        self.assertEqual(data, self.by_file(FILM, "--loop", "4"))

    def test_a_peer_that_goes_away_is_6(self):
        server, address = self.listen()
        process = self.start("relay", FILM, address, "--realtime", "--loop", "-1")
        with server.accept()[0] as peer:
            peer.recv(1)
        self.ends(process, 6, "the reader of the output went away: tcp://")

    def test_a_peer_that_takes_nothing_holds_back_until_it_is_stopped(self):
        server, address = self.listen()
        process = self.start("relay", FILM, address, "--loop", "2000")
        with server.accept()[0]:
            time.sleep(2)
            self.assertIsNone(process.poll())
            process.send_signal(signal.SIGINT)
            self.ends(process, 6, "the reader of the output takes nothing")

    def test_who_takes_nothing_keeps_no_other_output_open(self):
        (stuck, first), (reading, second) = self.listen(), self.listen()
        process = self.start("relay", FILM, first, "-o", second, "--loop", "-1")
        with stuck.accept()[0]:
            reader = reading.accept()[0]
            reader.settimeout(2)
            with self.assertRaises(TimeoutError):  # the other one is full
                while reader.recv(1 << 18):
                    pass
            reader.settimeout(60)
            process.send_signal(signal.SIGINT)
            read_all(reader)
            self.assertIn(f":{stuck.getsockname()[1]:04X} 01 ", pathlib.Path("/proc/net/tcp").read_text())  # open
            self.ends(process, 6, "the reader of the output takes nothing")

    def test_a_datagram_that_has_begun_goes_although_nothing_follows(self):
        data = self.by_file(FILM, "--loop", "3")
        server, address = self.listen()
        with socket.socket(type=socket.SOCK_DGRAM) as receiver:
            receiver.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4 << 20)
            receiver.bind(("127.0.0.1", 0))
            receiver.settimeout(60)
            # No faster than it is read: the last one must not be lost.
            process = self.start("relay", address, f"udp://127.0.0.1:{receiver.getsockname()[1]}", "--rate", "8")
            with server.accept()[0] as source:
                source.sendall(data)
                while len(receiver.recv(65536)) == 7 * PACKET:
                    pass
            self.ends(process, 0)

    def test_datagrams_are_those_of_the_file(self):
        for host in ["127.0.0.1", "127.0.0.230"]:  # the engine takes the second for a group
            with self.subTest(host=host), socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as receiver:
                receiver.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4 << 20)
                receiver.bind((host, 0))
                self.receive_film(receiver, f"udp://{host}:{receiver.getsockname()[1]}")

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
        process = self.start("relay", STEPS, f"tcp-listen://127.0.0.1:{port}", "--realtime", "--loop", "-1", "--json",
                             "--stats", "0.5")
        connect(port).close()  # one that goes at once
        player = self.beside("ffmpeg", "-nostdin", "-v", "error", "-i", f"tcp://127.0.0.1:{port}", "-c", "copy",
                             "-flush_packets", "1", self.out("player.ts"))
        readers = []
        for _ in range(4):
            client = connect(port)
            client.recv(1, socket.MSG_PEEK)  # the next one begins at a later key frame
            readers.append(self.read_beside(client))
        while not self.out("player.ts").exists() or self.out("player.ts").stat().st_size == 0:
            self.assertIsNone(player.poll())
            time.sleep(0.05)
        process.send_signal(signal.SIGINT)
        told = [json.loads(line) for line in self.ends(process, 0).stdout.splitlines()]
        self.ends(player, 0)
        found = [self.assert_joined(read()) for read in readers]
        lengths = [len(video) for video, _ in found]
        self.assertEqual(lengths, sorted(set(lengths), reverse=True))
        found.append(contents(self.out("player.ts")))
        for stream, film in enumerate(self.by_ffmpeg(STEPS)):
            longest = found[0][stream]
            rounds = [p[3] for p in film] * (len(longest) // len(film) + 2)
            self.assertTrue(any(rounds[i:i + len(longest)] == longest for i in range(len(film))))
            for one in found:
                self.assertEqual(one[stream], longest[-len(one[stream]):])
        figures = [line["figures"] for line in told if line["event"] == "client"]
        self.assertRegex("; ".join(figures), r"sent [1-9]")
        for text in figures:
            self.assertRegex(text, r"\AStarted \d{4}-\d\d-\d\d \d\d:\d\d:\d\d UTC, last active \d+ s ago, "
                                   r"speed \d\.\d\dx, recv 0, sent \d+")

    def test_one_that_never_reads_is_disconnected_and_others_lose_nothing(self):
        port = free_port()
        # At a rate that fills the stuck client's queue within seconds, and that the others follow with ease.
        process = self.start("relay", FILM, f"tcp-listen://127.0.0.1:{port}", "--loop", "-1", "--rate", "50")
        readers = [self.read_beside(connect(port)) for _ in range(3)]
        stuck = connect(port, narrow=True)
        told = process.stderr.readline().decode()
        self.assertIn(f"a client is too slow and was disconnected: 127.0.0.1:{stuck.getsockname()[1]};", told)
        with stuck:
            try:
                while stuck.recv(1 << 18):
                    pass
            except ConnectionResetError:
                pass
        self.assertIsNone(process.poll())
        process.send_signal(signal.SIGINT)
        self.ends(process, 0)
        for read in readers:
            self.assertGreater(len(read()), 3 << 20)  # all that was queued for the other one
            self.assert_counters(read())

    def test_nobody_is_waited_for(self):
        begin = time.monotonic()
        self.ends(program.mivra("relay", FILM, f"tcp-listen://127.0.0.1:{free_port()}"), 0)
        self.assertLess(time.monotonic() - begin, 60)


class Inputs(Case):
    def test_a_publisher_over_tcp(self):
        port = free_port()
        process = self.start("relay", f"tcp-listen://127.0.0.1:{port}", self.out("in.ts"))
        self.publish(port)
        self.ends(process, 0)
        self.assertEqual(seen(self.out("in.ts")), self.by_ffmpeg())

    def test_there_is_one_publisher(self):
        data, port = self.by_file(), free_port()
        process = self.start("relay", f"tcp-listen://127.0.0.1:{port}?timeout=60", self.out("in.ts"))
        self.await_listener(port)
        process.send_signal(signal.SIGSTOP)
        os.waitpid(process.pid, os.WUNTRACED)
        # Both are there when it looks; the one that came first is taken, and nobody listens for others.
        with connect(port) as first, connect(port) as second:
            second.sendall((INPUTS / "plain.ts").read_bytes()[:PACKET * 200])
            process.send_signal(signal.SIGCONT)
            try:
                self.assertEqual(second.recv(1), b"")
            except ConnectionResetError:
                pass
            self.await_listener(port, times=0)
            first.sendall(data)
        self.ends(process, 0)
        self.assertEqual(seen(self.out("in.ts")), self.by_ffmpeg())

    def test_a_publisher_is_waited_for_and_then_has_to_bring_something(self):
        port = free_port()
        process = self.start("relay", f"tcp-listen://127.0.0.1:{port}?timeout=1", self.out("in.ts"))
        self.await_listener(port)
        time.sleep(1.5)
        with connect(port):
            self.ends(process, 4, "capture timeout: the input has brought nothing for 1 s: tcp-listen://")

    def test_from_a_server_slower_than_it_sends(self):
        server, address = self.listen()
        process = self.start("relay", address, self.out("in.ts"), "--rate", "4")
        data = self.by_file()
        with server.accept()[0] as peer:
            random.seed(5)
            while data:  # whatever the pieces
                size = random.randint(1, 4000)
                peer.sendall(data[:size])
                data = data[size:]
        self.ends(process, 0)
        self.assertEqual(seen(self.out("in.ts")), self.by_ffmpeg())

    def test_a_connection_that_breaks_is_damage(self):
        data = self.by_file()
        for sent, text in [(data, "Connection reset by peer"), (data + data[:50], "it ends in the middle of a packet")]:
            with self.subTest(text=text):
                server, address = self.listen()
                process = self.start("relay", address, self.out("in.ts"))
                with server.accept()[0] as peer:
                    peer.sendall(sent)
                    while struct.unpack("i", fcntl.ioctl(peer, termios.TIOCOUTQ, bytes(4)))[0]:
                        time.sleep(0.02)
                    if sent == data:
                        peer.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
                self.ends(process, 5, "damaged input: " + text)
                self.assertGreater(len(packets.of(self.out("in.ts"))[0]), 123)

    def test_probe_and_convert_read_the_network(self):
        data = self.by_file()
        for words in [("probe", "--json"), ("convert", self.out("sound.ts"), "--to", "adts")]:
            with self.subTest(words=words):
                server, address = self.listen()
                process = self.start(words[0], address, *words[1:])
                with server.accept()[0] as peer:
                    try:
                        peer.sendall(data)
                    except (BrokenPipeError, ConnectionResetError):
                        pass  # it knows enough
                output = self.ends(process, 0).stdout
                if words[0] == "probe":
                    self.assertEqual([s["codec"] for s in json.loads(output)["streams"]], ["h264", "aac"])
        self.assertEqual(len(packets.of(self.out("sound.ts"))[1]), 236)

    def test_datagrams_and_silence(self):
        # Unicast, a group that the engine joins, and one that it does not; the groups have two listeners.
        running, ports, words = [], {}, []
        for host, listeners in [("127.0.0.1", 1), ("239.1.2.224", 2), ("239.1.2.3", 2)]:
            port = free_port(socket.SOCK_DGRAM)
            options = "&interface=127.0.0.1" if listeners > 1 else ""
            for i in range(listeners):
                output = self.out(f"{host}-{i}.ts")
                running.append((output, self.start("relay", f"udp://{host}:{port}?timeout=8{options}", output)))
            ports[port] = listeners
            words += ["-map", "0", "-c", "copy", "-f", "mpegts",
                      f"udp://{host}:{port}?pkt_size=1316&localaddr=127.0.0.1"]
        for port, listeners in ports.items():
            self.wait_until(f":{port:04X} ", "/proc/net/udp", listeners)
        ffmpeg("-re", "-t", "2", "-i", FILM, *words)
        for output, process in running:
            with self.subTest(output=output):
                self.ends(process, 4, "capture timeout: the input has brought nothing for 8 s: udp://")
                for found, whole in zip(seen(output), self.by_ffmpeg()):
                    self.assertGreater(len(found), 40)
                    self.assertEqual(found, whole[:len(found)])

    def test_ctrl_c_while_nobody_publishes(self):
        for command, *words in [("relay", self.out("x.ts")), ("record", "-o", self.out("y.ts"), "--trigger", "after:0"),
                                ("probe",)]:
            port = free_port()
            process = self.start(command, f"tcp-listen://127.0.0.1:{port}", *words)
            self.await_listener(port)
            process.send_signal(signal.SIGINT)
            self.ends(process, 3 if command == "probe" else 0)

    def test_a_recording_from_and_into_the_network(self):
        server, address = self.listen()
        port = free_port()
        process = self.start("record", f"tcp-listen://127.0.0.1:{port}", "-o", address, "--trigger", "after:0")
        self.publish(port)
        self.out("recorded.ts").write_bytes(read_all(server.accept()[0]))
        self.ends(process, 0)
        self.by_ffmpeg()
        self.assertEqual(contents(self.out("recorded.ts"))[0], contents(self.out("reference.ts"))[0])


if __name__ == "__main__":
    program.main()
