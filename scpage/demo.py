"""A made-up router in a sandbox: its areas, and programs that change them."""

import os
import pathlib
import random
import subprocess
import threading

NAMES = ("printer", "nas", "camera-door", "tv", "laptop-anna", "phone-ben", "thermostat", "console")
PLACES = ("lobby", "hall", "cellar", "roof", "office", "yard")
# The programs of the router. Each is scctl under a name of its own.
PROGRAMS = ("httpd", "apd", "dhcpd", "firewalld")
FOLDER = pathlib.Path("/var/bin")
MARK = "SCPAGE_SANDBOX"  # the process that the sandbox was made for


def is_inside():
    return os.environ.get(MARK) == str(os.getpid())


def enter(private_world, words):
    """Starts this program again, in a sandbox. The process stays."""
    os.environ[MARK] = str(os.getpid())
    os.execvp("sh", ["sh", str(private_world), *words])


def mac(number):
    return "02:00:5e:00:%02x:%02x" % divmod(number, 256)


def first_lines():
    """Commands that fill the areas."""
    for number in range(1, 13):
        yield "add lan_binds mac=%s ip=192.168.1.%d name='%s'" % (
            mac(number), 100 + number, NAMES[number % len(NAMES)])
    for number in range(1, 41):
        yield "add aps ap_mac=%s run_state=1 group_id=%d group_info='%s'" % (
            mac(1000 + number), number % 3 + 1, PLACES[number % len(PLACES)])
    for number in range(1, 61):
        yield "add clients client_mac=%s text_52='%s'" % (mac(2000 + number), NAMES[number % len(NAMES)])
    yield "add ip_groups leading_text=guests start_ip_text=192.168.2.1 end_ip_text=192.168.2.254"
    yield "add time_groups leading_text=nights weekday=1,1,1,1,1,1,1 start_time=22:00 end_time=06:00"
    for number, port in enumerate((22, 80, 443), 1):
        yield "add port_forward leading_text='service %d' ip_text=192.168.1.%d number_1=%d number_2=%d" % (
            number, 100 + number, port, port)
    yield "add url_filter url=ads.example leading_text='no ads'"
    yield "add mac_filter mac=02:00:5e:00:ff:01 leading_text='lost phone'"
    yield "add qos leading_text='calls first' match_text=voip"


class Traffic(threading.Thread):
    """Programs that change something about twice a second."""

    def __init__(self, scctl):
        super().__init__(daemon=True)
        self._stop_asked = threading.Event()
        self._random = random.Random()
        for name in PROGRAMS:
            (FOLDER / name).symlink_to(scctl)
        self._call("httpd", "init", "--all")
        self._call("httpd", "batch", given="\n".join(first_lines()) + "\n")
        self._call("httpd", "save", "--all")

    def stop(self):
        self._stop_asked.set()
        if self.is_alive():
            self.join()
        # The guards of a try would keep the sandbox until its deadline.
        self._call("httpd", "revert")

    def run(self):
        while not self._stop_asked.wait(self._random.uniform(0.1, 0.9)):
            self._step()

    def _step(self):
        choose, number = self._random.choice, self._random.randint
        kind = number(1, 20)
        if kind <= 9:
            self._call("apd", "set", "aps/%d" % number(1, 40), "run_state=%d" % number(0, 3))
        elif kind <= 13:
            self._call("dhcpd", "set", "clients/%d" % number(1, 60), "text_52=%s" % choose(NAMES),
                       "field_20=%d" % number(1, 86400))
        elif kind <= 15:
            self._call("apd", "set", "aps/%d" % number(1, 40), "group_info=%s" % choose(PLACES))
        elif kind <= 17:
            self._call("httpd", "set", "lan_binds/%d" % number(1, 12), "name=%s" % choose(NAMES))
        elif kind == 18:
            place = number(13, 20)
            self._call("httpd", "add", "lan_binds/%d" % place, "mac=" + mac(place),
                       "ip=192.168.1.%d" % (100 + place), "name=%s" % choose(NAMES))
        elif kind == 19:
            self._call("httpd", "del", "lan_binds/%d" % number(13, 20))
        else:
            self._call("firewalld", "set", "port_forward/%d" % number(1, 3),
                       "number_2=%d" % number(1024, 65535))

    @staticmethod
    def _call(program, *words, given=""):
        """What cannot be done, such as adding a record twice, is left."""
        subprocess.run([FOLDER / program, *words], input=given.encode(), stdout=subprocess.DEVNULL,
                       stderr=subprocess.DEVNULL)
