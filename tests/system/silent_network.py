"""Networks on which nobody answers, and loopback addresses that nobody else uses."""

import contextlib
import fcntl
import ipaddress
import itertools
import os
import socket
import struct
import subprocess

# linux/if_tun.h
TUNSETIFF = 0x400454CA
IFF_TAP, IFF_NO_PI = 0x0002, 0x1000
ETHERNET_HEADER = 14

NETBIOS_SESSION = 139
# What RFC 2544 sets aside for tests of networks.
TEST_NETWORKS = ipaddress.ip_network("198.18.0.0/15")

_numbers = itertools.count(1)
MOST_ADDRESSES = 1000


def own_loopback():
    """An address below 127.0.0.0/8 at which nothing of this machine listens on the fixed port of
    the file servers; each call gives another one."""
    for number in itertools.islice(_numbers, MOST_ADDRESSES):
        address = f"127.{100 + number % 100}.{number // 100 % 250}.{1 + os.getpid() % 250}"
        with contextlib.suppress(OSError), socket.create_server((address, NETBIOS_SESSION)):
            return address
    raise OSError(f"port {NETBIOS_SESSION} is taken at {MOST_ADDRESSES} addresses")


class SilentNetwork:
    """An Ethernet of this machine's own on which nothing else is: what is sent to its addresses is
    swallowed. It goes with the process at the latest. Needs root."""

    def __init__(self):
        self.device = f"zel{os.getpid()}"
        subnets = list(TEST_NETWORKS.subnets(new_prefix=24))
        self.network = subnets[os.getpid() % len(subnets)]
        self._wire = os.open("/dev/net/tun", os.O_RDWR | os.O_NONBLOCK)
        request = struct.pack("16sH22x", self.device.encode(), IFF_TAP | IFF_NO_PI)
        fcntl.ioctl(self._wire, TUNSETIFF, request)
        # Without ARP: whom nobody knows would be refused after some seconds.
        self._ip("link", "set", self.device, "arp", "off", "up")
        self._ip("address", "add", f"{self.address(1)}/24", "broadcast", "+", "dev", self.device)

    def _ip(self, *arguments):
        subprocess.run(["ip", *arguments], check=True, capture_output=True)

    def address(self, number):
        """The first one is this machine's."""
        return str(self.network[number])

    def datagrams(self, port):
        """(destination, content) of the UDP datagrams to that port which were sent since the last
        call."""
        found = []
        with contextlib.suppress(BlockingIOError):
            while True:
                packet = os.read(self._wire, 65536)[ETHERNET_HEADER:]
                header = (packet[0] & 0xF) * 4 if packet and packet[0] >> 4 == 4 else 0
                if not header or packet[9] != socket.IPPROTO_UDP:
                    continue
                _, destination_port, length = struct.unpack_from("!HHH", packet, header)
                if destination_port == port:
                    found.append((socket.inet_ntoa(packet[16:20]),
                                  packet[header + 8:header + length]))
        return found

    def close(self):
        os.close(self._wire)
