#!/usr/bin/env python3
"""Runs `mivra` in a network namespace of its own, joined to the tests' by two links, for what loopback does not
do: check_namespaces.py MIVRA FOLDER-FOR-INPUTS. Exit code 77 where no namespace can be made."""

import os
import pathlib
import shlex
import signal
import socket
import subprocess
import sys
import time

INSIDE = "MIVRA_TEST_NAMESPACE"
OURS, THEIRS = ["10.77.0.1", "10.78.0.1"], ["10.77.0.2", "10.78.0.2"]  # of both links; theirs are the program's
NOWHERE = "10.77.0.9"  # behind the first link, where whatever is sent vanishes


def run(line, *before):
    subprocess.run([*before, *shlex.split(line)], check=True)


def enter():
    """This program again, in a namespace that ends with it; does not return."""
    unshare = ["unshare", "--net", *([] if os.getuid() == 0 else ["--map-root-user"])]
    if subprocess.run([*unshare, "ip", "link", "add", "type", "veth"], capture_output=True).returncode != 0:
        print("skipped: this machine lets nobody make network namespaces")
        sys.exit(77)
    os.execvpe("unshare", [*unshare, sys.executable, *sys.argv], {**os.environ, INSIDE: "1"})


def make_links():
    """The program's namespace; the words that run something in it."""
    other = subprocess.Popen(["unshare", "--net", "sh", "-c", "echo made; exec cat"], stdin=subprocess.PIPE,
                             stdout=subprocess.PIPE)  # ends when we do
    other.stdout.readline()
    there = ["nsenter", "--net", "--target", str(other.pid)]
    run("ip link set lo up")
    run("ip link set lo up", *there)
    for i, (ours, theirs) in enumerate(zip(OURS, THEIRS)):
        run(f"ip link add link{i} type veth peer name link{i} netns {other.pid}")
        run(f"ip addr add {ours}/24 dev link{i}")
        run(f"ip addr add {theirs}/24 dev link{i}", *there)
        run(f"ip link set link{i} up")
        run(f"ip link set link{i} up", *there)
    for kind, net in (("unreachable", 1), ("prohibit", 2), ("blackhole", 3)):
        run(f"ip route add {kind} 10.99.{net}.0/24", *there)
    run("ip route add 239.0.0.0/8 dev link0", *there)  # the wrong one
    # Three times unanswered, and a connection is given up.
    run("sh -c 'echo 2 > /proc/sys/net/ipv4/tcp_retries2'", *there)
    return there


if INSIDE not in os.environ:
    enter()
sys.path.insert(0, str(pathlib.Path(__file__).parent))
import check_network as network  # noqa: E402
import program  # noqa: E402
from check_network import FILM  # noqa: E402

THERE = make_links()


def member(group, port, address):
    receiver = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    receiver.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4 << 20)
    receiver.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    receiver.setsockopt(socket.IPPROTO_IP, 49, 0)  # IP_MULTICAST_ALL: only what comes by this membership's link
    receiver.bind((group, port))
    membership = socket.inet_aton(group) + socket.inet_aton(address)
    receiver.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP, membership)
    return receiver


class Namespaces(network.Case):
    BEFORE = THERE

    def setUp(self):
        super().setUp()
        # Each time: a link that goes down forgets it, and then nobody is looked for in vain.
        run(f"ip neigh replace {NOWHERE} lladdr 02:00:00:00:00:09 dev link0", *THERE)

    def link(self, words, i=0):
        run(f"ip link set link{i} {words}", *THERE)

    def test_a_connect_that_nobody_answers_is_3_after_3_s(self):
        for words in [("relay", FILM, f"tcp://{NOWHERE}:9"), ("relay", f"tcp://{NOWHERE}:9", self.out("x.ts"))]:
            begin = time.monotonic()
            self.ends(self.start(*words), 3, "nobody answers there")
            self.assertGreater(time.monotonic() - begin, 2.9)

    def test_ctrl_c_ends_a_connect_at_once(self):
        nobody, log = f"tcp://{NOWHERE}:9", ["--log", self.out("log"), "--log-level", "4"]
        for words, code in [(("relay", FILM, nobody, *log), 0), (("relay", nobody, self.out("x.ts"), *log), 0),
                            (("record", nobody, "-o", self.out("y.ts"), "--trigger", "after:0", *log), 0),
                            (("probe", nobody), 3)]:
            with self.subTest(words=words):
                process = self.start(*words)
                self.wait_until(":0009 02 ", f"/proc/{process.pid}/net/tcp")  # waits for an answer
                process.send_signal(signal.SIGINT)
                self.ends(process, code, *(["the wait for it was ended"] if code else []))
        # What comes of a connect that has been waited for to its end.
        self.assertNotIn("releasing context", self.out("log").read_text())

    def test_no_way_there_is_3_or_6(self):
        for net in range(4):  # 0: no route, 1 to 3: routes that refuse
            with self.subTest(net=net):
                self.ends(self.start("relay", FILM, f"tcp://10.99.{net}.1:9"), 3, "nobody listens there")
                self.ends(self.start("relay", FILM, f"udp://10.99.{net}.1:9"), 6,
                          "cannot write the output: Network is unreachable")

    def test_a_peer_that_vanishes_is_6(self):
        with socket.create_server((OURS[0], 0)) as server:
            process = self.start("relay", FILM, f"tcp://{OURS[0]}:{server.getsockname()[1]}", "--loop", "-1")
            with server.accept()[0] as peer:
                peer.recv(1)
                self.addCleanup(self.link, "up")
                self.link("down")
                self.ends(process, 6, "the reader of the output went away: tcp://")

    def test_a_client_that_vanishes_takes_nothing_from_others(self):
        port = network.free_port()
        process = self.start("relay", FILM, f"tcp-listen://0.0.0.0:{port}", "--loop", "150", "--rate", "100")
        clients = [network.connect(port, host=THEIRS[i]) for i in range(2)]
        read = self.read_beside(clients[1])
        with clients[0]:
            clients[0].recv(1)
            self.addCleanup(self.link, "up")
            self.link("down")
            data = read()
        _, complaints = process.communicate(timeout=120)  # perhaps it was too slow before it was gone
        self.assertEqual(process.returncode, 0, complaints)
        self.assertGreater(len(data), 10 << 20)
        self.assert_joined(data)
        self.assert_counters(data)

    def test_datagrams_larger_than_the_link_takes(self):
        self.addCleanup(self.link, "mtu 1500")
        for mtu in [1500, 576]:
            self.link(f"mtu {mtu}")
            with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as receiver:
                receiver.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4 << 20)
                receiver.bind((OURS[0], 0))
                # In the first round it becomes narrower under way.
                self.receive_film(receiver, f"udp://{OURS[0]}:{receiver.getsockname()[1]}",
                                  lambda: self.link("mtu 576"))

    def test_multicast_out_by_the_interface(self):
        for group in ["239.1.1.230", "239.1.1.7"]:
            port = network.free_port(socket.SOCK_DGRAM)
            with self.subTest(group), member(group, port, OURS[1]) as right, member(group, port, OURS[0]) as wrong:
                self.receive_film(right, f"udp://{group}:{port}?interface={THEIRS[1]}")
                wrong.setblocking(False)
                self.assertRaises(BlockingIOError, wrong.recv, 1)

    def test_multicast_in_by_the_interface(self):
        for group in ["239.1.2.230", "239.1.2.7"]:
            port = network.free_port(socket.SOCK_DGRAM)
            with self.subTest(group=group), socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sender:
                output = self.out(f"{group}.ts")
                process = self.start("relay", f"udp://{group}:{port}?timeout=2&interface={THEIRS[1]}", output)
                joined = socket.inet_aton(group)[::-1].hex().upper()
                self.wait_until(joined, f"/proc/{process.pid}/net/igmp")
                data = self.by_file()
                for at in range(0, len(data), 7 * network.PACKET):
                    for i in (1, 0):  # by the other one comes what is not meant
                        sender.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, socket.inet_aton(OURS[i]))
                        sender.sendto(data[at:at + 7 * network.PACKET] if i else b"G" * 188, (group, port))
                    time.sleep(0.001)
                self.ends(process, 4, "capture timeout")
                self.assertEqual(network.seen(output), self.by_ffmpeg())


program.main()
