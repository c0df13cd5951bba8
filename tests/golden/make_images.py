#!/usr/bin/python3
"""Computes what history.txt leaves in every area and writes it to images/, compressed.

usage: tests/golden/make_images.py [--check]

The library takes no part in this: the layouts below and the steps were written down a second time,
by hand. --check writes nothing: it compares the committed images with the computed ones and ends
with status 1 when they differ.
"""

import gzip
import pathlib
import re
import socket
import sys

GOLDEN = pathlib.Path(__file__).resolve().parent

# ---- layouts ----

# Area: size, lock file stem, fields behind the header.
# A table is (offset, name of its records' layout, stride, count); a plain field (offset, width).
AREAS = {
    "Lan": (50888, "lan", {
        "lan_settings": (136, 1368), "lan_bind_count": (1504, 4),
        "lan_binds": (1508, "DhcpdBind", 748, 32), "ac_bind_count": (25944, 4),
        "ac_binds": (25948, "DhcpdBind", 748, 32)}),
    "Wan": (4476, "wan", {"sections": (136, "WanSection", 960, 4)}),
    "ProductInfo": (24224, "product", {"settings": (136, 24088)}),
    "Misc": (7548, "misc", {
        "lock_index_136": (136, 4), "settings_140": (140, 768),
        "lock_index_908": (908, 4), "settings_912": (912, 504),
        "lock_index_1416": (1416, 4), "settings_1420": (1420, 524),
        "lock_index_1944": (1944, 4), "settings_1948": (1948, 552),
        "lock_index_2500": (2500, 4), "settings_2504": (2504, 5044)}),
    "VsIpport": (31480, "vs_ipport", {
        "rule_count": (140, 2), "rules": (144, "ForwordIpPort", 948, 32)}),
    "FwIpport": (32632, "fw_ipport", {
        "rule_count": (140, 2), "rules": (144, "FireWall_IpPort", 984, 32)}),
    "IpGroup": (16180, "ipgroup", {
        "group_count": (136, 4), "groups": (140, "UserIpGroup", 940, 16)}),
    "TimeGroup": (16116, "timegroup", {
        "group_count": (136, 4), "groups": (140, "UserTimeGroup", 936, 16)}),
    "FwMac": (31864, "fw_mac", {
        "rule_count": (140, 2), "rules": (144, "FireWall_Mac", 960, 32)}),
    "FwUrl": (35320, "fw_url", {
        "rule_count": (140, 2), "rules": (144, "FireWall_Url", 1068, 32)}),
    "Qos": (33400, "qos", {
        "rule_count": (140, 2), "rules": (144, "QosRule", 1008, 32)}),
    "ManageApList": (3691840, "aplist", {"aps": (136, "Ap", 12304, 300)}),
    "ApUserList": (7253608, "apuserlist", {"users": (136, "ApUser", 23200, 300)}),
    "ApTemplateList": (180760, "aptemplatelist", {
        "templates": (136, "ApTemplate", 12008, 15)}),
    "DefApTemplate": (12032, "defaptemplate", {"settings": (136, 11896)}),
    "Clients_Groups": (5916, "clients_groups", {
        "groups": (136, "ClientsGroups", 528, 10)}),
    "Clients": (216636, "clients", {"clients": (136, "Clients", 720, 300)}),
}

# The images are named as the files that the library writes.
STEMS = {"ProductInfo": "product", "VsIpport": "vs_ipport", "FwIpport": "fw_ipport",
         "FwMac": "fw_mac", "FwUrl": "fw_url", "ManageApList": "mange_aplist"}

# Record field: (offset, width, name in the item, how the item holds it). "same": the same bytes;
# "low": one 32-bit word for each byte, of which the low byte counts; "half": a 32-bit word, of
# which the low 16 bits count; "address": 16 bytes of dotted text. What lies between two fields is
# never written.
SLOT_SECOND = {"lock_index": (0, 4), "slot_id": (4, 4)}
RECORDS = {
    "WanSection": {"lock_index": (0, 4), "settings": (4, 956)},
    "DhcpdBind": {
        "slot_id": (0, 4), "lock_index": (4, 4),
        "bind_flag": (8, 1, "flag", "low"), "bind_mac": (9, 20, "mac", "same"),
        "bind_ip": (36, 4, "ip", "address"), "bind_name": (48, 200, "name", "same")},
    "UserIpGroup": {
        **SLOT_SECOND, "leading_text": (8, 200, "leading_text", "same"),
        "start_addr": (212, 4, "start_ip_text", "address"),
        "end_addr": (228, 4, "end_ip_text", "address"),
        "trailing_text": (240, 200, "trailing_text", "same")},
    "UserTimeGroup": {
        **SLOT_SECOND, "leading_text": (8, 200, "leading_text", "same"),
        "weekday": (208, 7, "weekday", "low"), "start_time": (215, 10, "start_time", "same"),
        "end_time": (225, 10, "end_time", "same"),
        "trailing_text": (235, 200, "trailing_text", "same")},
    "FireWall_IpPort": {
        **SLOT_SECOND, "leading_text": (8, 200, "leading_text", "same"),
        "ip_mode": (208, 1, "ip_mode", "low"), "ip_group_id": (210, 2, "ip_group_id", "half"),
        "start_addr": (216, 4, "start_ip_text", "address"),
        "end_addr": (232, 4, "end_ip_text", "address"),
        "param_1": (244, 4, "param_1", "same"), "param_2": (248, 4, "param_2", "same"),
        "param_byte": (252, 1, "param_byte", "low"), "time_mode": (253, 1, "time_mode", "low"),
        "time_group_id": (254, 1, "time_group_id", "low"), "weekday": (255, 7, "weekday", "low"),
        "start_time": (262, 10, "start_time", "same"), "end_time": (272, 10, "end_time", "same"),
        "rule_flag": (282, 1, "rule_flag", "low"),
        "trailing_text": (283, 200, "trailing_text", "same")},
    "ForwordIpPort": {
        **SLOT_SECOND, "leading_text": (8, 200, "leading_text", "same"),
        "ip_addr": (212, 4, "ip_text", "address"), "option_1": (224, 1, "option_1", "low"),
        "number_1": (228, 4, "number_1", "same"), "number_2": (232, 4, "number_2", "same"),
        "number_3": (236, 4, "number_3", "same"), "number_4": (240, 4, "number_4", "same"),
        "option_2": (244, 1, "option_2", "low"), "option_3": (245, 1, "option_3", "low"),
        "trailing_text": (246, 200, "trailing_text", "same")},
    "FireWall_Mac": {
        **SLOT_SECOND, "leading_text": (8, 200, "leading_text", "same"),
        "mac": (208, 20, "mac", "same"), "time_mode": (228, 1, "time_mode", "low"),
        "time_group_id": (229, 1, "time_group_id", "low"), "weekday": (230, 7, "weekday", "low"),
        "start_time": (237, 10, "start_time", "same"), "end_time": (247, 10, "end_time", "same"),
        "rule_flag": (257, 1, "rule_flag", "low"),
        "trailing_text": (258, 200, "trailing_text", "same")},
    "FireWall_Url": {
        **SLOT_SECOND, "leading_text": (8, 200, "leading_text", "same"),
        "url": (208, 128, "url", "same"), "time_mode": (336, 1, "time_mode", "low"),
        "time_group_id": (337, 1, "time_group_id", "low"), "weekday": (338, 7, "weekday", "low"),
        "start_time": (345, 10, "start_time", "same"), "end_time": (355, 10, "end_time", "same"),
        "rule_flag": (365, 1, "rule_flag", "low"),
        "trailing_text": (366, 200, "trailing_text", "same")},
    "QosRule": {
        **SLOT_SECOND, "leading_text": (8, 200, "leading_text", "same"),
        "match_kind": (208, 1, "match_kind", "low"), "match_text": (209, 20, "match_text", "same"),
        "ip_mode": (229, 1, "ip_mode", "low"), "ip_group_id": (230, 2, "ip_group_id", "half"),
        "start_addr": (236, 4, "start_ip_text", "address"),
        "end_addr": (252, 4, "end_ip_text", "address"),
        "time_mode": (264, 1, "time_mode", "low"),
        "time_group_id": (265, 1, "time_group_id", "low"), "weekday": (266, 7, "weekday", "low"),
        "start_time": (273, 10, "start_time", "same"), "end_time": (283, 10, "end_time", "same"),
        "param_1": (296, 4, "param_1", "same"), "param_2": (300, 4, "param_2", "same"),
        "param_byte": (304, 1, "param_byte", "low"), "rule_flag": (305, 1, "rule_flag", "low"),
        "trailing_text": (306, 200, "trailing_text", "same")},
    "Ap": {
        "lock_index": (0, 4), "run_state": (137, 1), "ap_mac": (236, 6), "group_id": (348, 1),
        "group_info": (349, 50), "ap_id": (11788, 4), "wtp_frag_len": (11796, 4)},
    "ApUser": {"lock_index": (0, 4), "user_id": (4, 4), "user_mac": (8, 6)},
    "ApTemplate": {
        "lock_index": (0, 4), "template_id": (4, 4), "template_name": (58, 50),
        "bound_ap_mac": (11416, 6)},
    "ClientsGroups": {**SLOT_SECOND, "group_name": (8, 20, "group_name", "same")},
    "Clients": {
        **SLOT_SECOND, "client_mac": (8, 6, "client_mac", "same"),
        **{"%s_%d" % (kind, at): (at, width, "%s_%d" % (kind, at), "same") for kind, at, width in (
            ("field", 14, 2), ("field", 16, 4), ("field", 20, 4), ("field", 24, 2),
            ("field", 26, 1), ("field", 27, 1), ("field", 28, 1), ("field", 29, 1),
            ("field", 30, 1), ("field", 31, 1), ("field", 32, 1), ("field", 34, 2),
            ("field", 36, 1), ("field", 40, 4), ("field", 44, 4), ("field", 48, 4),
            ("text", 52, 20), ("text", 82, 20), ("text", 102, 20), ("text", 122, 20),
            ("text", 142, 20), ("text", 162, 20), ("text", 182, 35))}},
}
RECORDS["AC_DhcpdBind"] = RECORDS["DhcpdBind"]

# List: area, table, counter, result of a modify out of range.
LISTS = {
    "DhcpdBind": ("Lan", "lan_binds", "lan_bind_count", 3),
    "AC_DhcpdBind": ("Lan", "ac_binds", "ac_bind_count", 3),
    "UserIpGroup": ("IpGroup", "groups", "group_count", 3),
    "UserTimeGroup": ("TimeGroup", "groups", "group_count", 3),
    "FireWall_IpPort": ("FwIpport", "rules", "rule_count", 3),
    "ForwordIpPort": ("VsIpport", "rules", "rule_count", 3),
    "FireWall_Mac": ("FwMac", "rules", "rule_count", 1),
    "FireWall_Url": ("FwUrl", "rules", "rule_count", 1),
    "QosRule": ("Qos", "rules", "rule_count", 3),
    "ClientsGroups": ("Clients_Groups", "groups", None, 3),
    "Clients": ("Clients", "clients", None, 3),
}

UNREAD = re.compile(r"(ip|time)_group_name|reserved|spare_\d+|lock_index")
FREE = b"\xff\xff\xff\xff"


def little(value, width=4):
    return (value % (1 << 8 * width)).to_bytes(width, "little")


def signed(raw):
    return int.from_bytes(raw, "little", signed=True)


# ---- values of the history ----

def encode(value, width, element):
    """The bytes of a field: see the head of history.txt."""
    if value.startswith('"'):
        raw = value[1:-1].encode()
    elif value.startswith('*"'):
        raw = value[2:-1].encode()
        raw = (raw * width)[:width]
    elif value.startswith("x"):
        raw = bytes.fromhex(value[1:])
    else:
        raw = b"".join(little(int(number, 0), element) for number in value.split(","))
    if len(raw) > width:
        raise ValueError("%s is wider than %d bytes" % (value, width))
    return raw.ljust(width, b"\0")


def number_width(width):
    return width if width in (1, 2, 4) else 1


class Fields:
    """The caller's item or record: bytes of a field that the line names, else the fill byte."""

    def __init__(self, args):
        self.args = dict(args)
        self.filler = encode(self.args.pop("fill", "0"), 1, 1)

    def take(self, name, width, element):
        if name in self.args:
            return encode(self.args.pop(name), width, element)
        return self.filler * width

    def done(self):
        """What is left over must be what the library never reads."""
        unknown = [name for name in self.args if not UNREAD.fullmatch(name)]
        if unknown:
            raise ValueError("unknown fields %s" % unknown)


# ---- the areas ----

class Device:
    def __init__(self):
        self.blocks = {}
        self.archives = {}

    # -- life of an area --

    def init(self, area, flag):
        size, _, fields = AREAS[area]
        block = self.blocks[area] = bytearray(size)
        for spot in fields.values():
            if len(spot) == 4 and "slot_id" in RECORDS[spot[1]]:
                at, record, stride, count = spot
                for n in range(count):
                    word = at + n * stride + RECORDS[record]["slot_id"][0]
                    block[word:word + 4] = FREE
        if area == "ApUserList":
            self.number(area)
        elif flag % 256 == 1:
            self.read(area)
        return 0

    def number(self, area):
        _, lock_stem, fields = AREAS[area]
        block = self.blocks[area]
        path_at, index_at = (0, 128) if area == "ApUserList" else (2, 132)
        path = b"/var/lock_store/%s_conf_lock\0" % lock_stem.encode()
        block[path_at:path_at + len(path)] = path
        block[index_at:index_at + 4] = little(1)
        lock_index = 2
        for name, spot in fields.items():
            words = []
            if len(spot) == 4:
                at, record, stride, count = spot
                words = [at + n * stride + RECORDS[record]["lock_index"][0] for n in range(count)]
            elif name.startswith("lock_index"):
                words = [spot[0]]
            for word in words:
                block[word:word + 4] = little(lock_index)
                lock_index += 1

    def read(self, area):
        self.number(area)
        if area == "ManageApList":
            self.clean_fragments()
        if area in self.archives:
            self.blocks[area][:] = self.archives[area]

    def flash(self, area):
        if self.can_lock(area):
            self.archives[area] = bytes(self.blocks[area])

    def remove(self, area):
        del self.blocks[area]
        return 0

    def can_lock(self, area):
        """Without a lock path there is no lock file to open."""
        return self.blocks[area][0 if area == "ApUserList" else 2] != 0

    def set(self, area, path, value):
        """A write past the library, as the owners of opaque bytes do it."""
        at, width = self.resolve(area, path)
        self.blocks[area][at:at + width] = encode(value, width, number_width(width))

    def resolve(self, area, path):
        size, _, fields = AREAS[area]
        if path == "header.header_reserved":
            return 0, 2
        match = re.fullmatch(r"(\w+)\[(\d+)\]\.(\w+)", path)
        if not match:
            return self.field_or_gap(path, fields, size)
        at, record, stride, count = fields[match[1]]
        if int(match[2]) >= count:
            raise ValueError("%s has %d records" % (match[1], count))
        inner, width = self.field_or_gap(match[3], RECORDS[record], stride)
        return at + int(match[2]) * stride + inner, width

    @staticmethod
    def field_or_gap(name, fields, size):
        """A named field, or the bytes from an offset to the next named field."""
        if name in fields:
            return fields[name][:2]
        at = int(re.fullmatch(r"(?:spare|opaque)_(\d+)", name)[1])
        return at, min([field[0] for field in fields.values() if field[0] > at] + [size]) - at

    # -- lists --

    def record(self, name, position):
        area, table, _, _ = LISTS[name]
        at, _, stride, _ = AREAS[area][2][table]
        return at + position * stride

    def get(self, name, position, field):
        at, width = RECORDS[name][field][:2]
        at += self.record(name, position)
        return bytes(self.blocks[LISTS[name][0]][at:at + width])

    def put(self, name, position, field, raw):
        at = self.record(name, position) + RECORDS[name][field][0]
        self.blocks[LISTS[name][0]][at:at + len(raw)] = raw

    def capacity(self, name):
        area, table, _, _ = LISTS[name]
        return AREAS[area][2][table][3]

    def clashes(self, name, image, skip_slot):
        def same_text(field, position):
            one, other = (raw.split(b"\0")[0].lower()
                          for raw in (self.get(name, position, field), image[field]))
            return one == other

        def same_bytes(field, position):
            return self.get(name, position, field) == image[field]

        checks = {
            "DhcpdBind": [(same_text, "bind_mac"), (same_bytes, "bind_ip")],
            "AC_DhcpdBind": [(same_text, "bind_mac"), (same_bytes, "bind_ip")],
            "FireWall_Mac": [(same_text, "mac")],
            "FireWall_Url": [(same_bytes, "url")],
            "ClientsGroups": [(same_text, "group_name")],
            "Clients": [(same_bytes, "client_mac")],
        }.get(name, [])
        for position in range(self.capacity(name)):
            slot = self.get(name, position, "slot_id")
            if slot == FREE or slot == little(skip_slot):
                continue
            if any(check(field, position) for check, field in checks):
                return True
        return False

    def blank(self, name):
        if not self.can_lock(LISTS[name][0]):
            return -1
        for position in range(self.capacity(name)):
            if self.get(name, position, "slot_id") == FREE:
                self.put(name, position, "slot_id", little(position + 1))
                return position
        return -1

    def free(self, name, position):
        self.put(name, position, "slot_id", FREE)
        if name == "Clients":
            self.put(name, position, "client_mac", bytes(6))

    def fill(self, name, position, image, op):
        for field, raw in image.items():
            if not (op == 2 and field == "client_mac"):
                self.put(name, position, field, raw)

    def operate(self, name, op, position, image):
        """Result code and position afterwards."""
        area, _, _, modify_range = LISTS[name]
        capacity = self.capacity(name)
        position %= 1 << 32
        if not self.can_lock(area):
            return -1, position
        if op == 0:
            if self.clashes(name, image, -1):
                return 1, position
            claimed = self.blank(name)
            if claimed < 0:
                return 1, position
            self.fill(name, claimed, image, op)
            return 0, claimed
        if op == 1:
            if position >= capacity:
                return 2, position
            self.free(name, position)
            return 0, position
        if op == 2:
            if self.clashes(name, image, position + 1):
                return 1, position
            if position >= capacity:
                return modify_range, position
            self.fill(name, position, image, op)
            return 0, position
        if op == 5:
            for n in range(capacity):
                self.free(name, n)
            return 0, position
        return 5, position

    # -- items --

    def image_of_record(self, name, args):
        """The payload of a record image that a caller of the table operation hands over."""
        given = Fields(args)
        image = {}
        for field, spot in RECORDS[name].items():
            if len(spot) == 4:
                width = spot[1]
                image[field] = given.take(field, width, number_width(width))
        given.done()
        return image

    def image_of_item(self, name, args):
        """The payload made from an item, and the item's id."""
        given = Fields(args)
        slot = "id" if "id" in given.args else "slot_id"
        ident = signed(given.take(slot, 4, 4))
        image = {}
        for field, spot in RECORDS[name].items():
            if len(spot) != 4:
                continue
            _, width, item_name, how = spot
            if how == "same":
                image[field] = given.take(item_name, width, number_width(width))
            elif how == "low":
                image[field] = given.take(item_name, 4 * width, 4)[::4]
            elif how == "half":
                image[field] = given.take(item_name, 4, 4)[:2]
            elif how == "address":
                image[field] = address(given.take(item_name, 16, 1))
        given.done()
        return image, ident

    def count(self, name, change):
        area, _, counter, _ = LISTS[name]
        if counter is None:
            return
        at, width = AREAS[area][2][counter]
        block = self.blocks[area]
        now = int.from_bytes(block[at:at + width], "little")
        block[at:at + width] = little(now + change, width)

    def add(self, name, args):
        image, _ = self.image_of_item(name, args)
        result, _ = self.operate(name, 0, 0, image)
        if result == 0:
            self.count(name, 1)
        return result

    def modify(self, name, args):
        image, ident = self.image_of_item(name, args)
        if name == "Clients":
            image["client_mac"] = bytes(6)
        return self.operate(name, 2, ident - 1, image)[0]

    def delete(self, name, ids):
        for token in ids.split("#"):
            if token == "":
                continue
            ident = number_in(token)
            if name == "UserIpGroup":
                self.delete_by_ip_group("FireWall_IpPort", ident)
                self.delete_by_ip_group("QosRule", ident)
            if name == "UserTimeGroup":
                for rules in ("FireWall_IpPort", "FireWall_Url", "FireWall_Mac", "QosRule"):
                    self.delete_by_time_group(rules, ident)
            self.operate(name, 1, ident - 1, None)
            self.count(name, -1)

    def delete_all(self, name):
        if name == "FireWall_IpPort":
            if self.can_lock("FwIpport"):
                for k in range(32):
                    at = 148 + 948 * k
                    self.blocks["FwIpport"][at:at + 4] = FREE
        else:
            self.operate(name, 5, -1, None)
        area, _, counter, _ = LISTS[name]
        if counter is not None:
            at, width = AREAS[area][2][counter]
            self.blocks[area][at:at + width] = bytes(width)

    def delete_by_ip_group(self, name, ident):
        self.delete_referring(name, "ip_mode", 1, "ip_group_id", ident)

    def delete_by_time_group(self, name, ident):
        self.delete_referring(name, "time_mode", 2, "time_group_id", ident)

    def delete_referring(self, name, mode_field, mode, id_field, ident):
        for position in range(self.capacity(name)):
            if (signed(self.get(name, position, mode_field)) == mode
                    and signed(self.get(name, position, id_field)) == ident):
                self.operate(name, 1, position, None)
                self.count(name, -1)

    # -- access points: tables whose free records have an id of 0 --

    ID_TABLES = {"ManageApList": ("aps", "ap_id", "ap_mac"),
                 "ApUserList": ("users", "user_id", "user_mac"),
                 "ApTemplateList": ("templates", "template_id", "bound_ap_mac")}

    def word(self, area, position, field):
        """(block, slice) of a field."""
        at, width = self.resolve(area, "%s[%d].%s" % (self.ID_TABLES[area][0], position, field))
        return self.blocks[area], slice(at, at + width)

    def load(self, area, position, field):
        block, span = self.word(area, position, field)
        return bytes(block[span])

    def store(self, area, position, field, raw):
        block, span = self.word(area, position, field)
        block[span] = raw

    def find(self, area, field, raw):
        table = self.ID_TABLES[area][0]
        for position in range(AREAS[area][2][table][3]):
            if self.load(area, position, field) == raw:
                return position
        return -1

    def claim(self, area):
        position = self.find(area, self.ID_TABLES[area][1], little(0))
        if position >= 0:
            self.store(area, position, self.ID_TABLES[area][1], little(position + 1))
        return position

    def claim_ap(self, limit):
        used = sum(signed(self.load("ManageApList", n, "ap_id")) > 0 for n in range(300))
        return self.claim("ManageApList") if used < limit else -1

    def clear(self, area, position):
        table = self.ID_TABLES[area][0]
        at, _, stride, _ = AREAS[area][2][table]
        at += position * stride
        self.blocks[area][at + 4:at + stride] = bytes(stride - 4)

    def delete_mac(self, area, mac):
        if not self.can_lock(area):
            return 0
        position = self.find(area, self.ID_TABLES[area][2], mac)
        if position < 0:
            return 0
        self.clear(area, position)
        return 1

    def clear_used_aps(self):
        if not self.can_lock("ManageApList"):
            return 0
        used = [n for n in range(300) if self.load("ManageApList", n, "ap_id") != little(0)]
        for position in used:
            self.clear("ManageApList", position)
        return len(used)

    def clean_fragments(self):
        for position in range(300):
            self.store("ManageApList", position, "wtp_frag_len", little(0))

    def group_info(self, mac, group, info):
        if not self.can_lock("ManageApList"):
            return 0
        position = self.find("ManageApList", "ap_mac", mac)
        if position < 0:
            return 0
        self.store("ManageApList", position, "group_id", little(group, 1))
        self.store("ManageApList", position, "group_info", info)
        return 1

    def delete_template(self, position):
        if not self.can_lock("ApTemplateList"):
            return 0
        self.clear("ApTemplateList", position)
        return 1

    def bind(self, ident, mac):
        templates = "ApTemplateList"
        if not self.can_lock(templates):
            return 0
        position = self.find(templates, "template_id", little(ident))
        if position < 0:
            return 0
        name = self.load(templates, position, "template_name")
        bound = self.load(templates, position, "bound_ap_mac")
        if bound == mac:
            self.group_info(mac, ident, name)
        elif sum(bound) == 0:
            self.group_info(mac, ident, name)
            self.store(templates, position, "bound_ap_mac", mac)
        return 0

    def unbind(self, ident, mac):
        templates = "ApTemplateList"
        if not self.can_lock(templates):
            return 0
        position = self.find(templates, "template_id", little(ident))
        if position >= 0 and self.load(templates, position, "bound_ap_mac") == mac:
            self.store(templates, position, "bound_ap_mac", bytes(6))
            self.group_info(mac, 0, bytes(50))
        return 0


def address(field):
    """A dotted text as the 32-bit value in network order; all bits set when it is none."""
    try:
        return socket.inet_aton(field.split(b"\0")[0].decode("latin-1"))
    except OSError:
        return FREE


def number_in(token):
    """As atoi reads it."""
    match = re.match(r"\s*([+-]?\d+)", token)
    return int(match[1]) if match else 0


# ---- running the history ----

def step(device, subject, verb, args):
    """Does one line; its results, or None for an operation without any."""
    plain = [value for name, value in args if name is None]
    named = [(name, value) for name, value in args if name is not None]
    values = dict(named)

    def number(name):
        return int(values[name], 0)

    def mac():
        return encode(values["mac"], 6, 1)

    if subject in LISTS:
        if verb == "add":
            return [device.add(subject, named)]
        if verb == "modify":
            return [device.modify(subject, named)]
        if verb == "delete":
            return device.delete(subject, plain[0][1:-1])
        if verb == "delete_all":
            return device.delete_all(subject)
        if verb == "delete_by_ip_group":
            return device.delete_by_ip_group(subject, int(plain[0]))
        if verb == "delete_by_time_group":
            return device.delete_by_time_group(subject, int(plain[0]))
        if verb == "blank":
            return [device.blank(subject)]
        if verb == "operate":
            op, position = number("op"), number("index")
            fields = [arg for arg in named if arg[0] not in ("op", "index")]
            image = device.image_of_record(subject, fields) if fields else None
            return list(device.operate(subject, op, position, image))
    if verb == "init":
        return [device.init(subject, int(plain[0]))]
    if verb == "remove":
        return [device.remove(subject)]
    if verb == "read":
        return device.read(subject)
    if verb == "flash":
        return device.flash(subject)
    if verb == "set":
        return device.set(subject, *named[0])
    if verb == "delete_mac":
        return [device.delete_mac(subject, mac())]
    if (subject, verb) == ("ManageApList", "claim"):
        return [device.claim_ap(number("limit"))]
    if verb == "claim":
        return [device.claim(subject)]
    if verb == "clear_used":
        return [device.clear_used_aps()]
    if verb == "clean_fragments":
        return device.clean_fragments()
    if verb == "group_info":
        info = encode(values["info"], 50, 1)
        return [device.group_info(mac(), number("group"), info)]
    if verb == "clean_group_info":
        return [device.group_info(mac(), 0, bytes(50))]
    if verb == "delete_template":
        return [device.delete_template(number("position"))]
    if verb == "bind":
        return [device.bind(number("id"), mac())]
    if verb == "unbind":
        return [device.unbind(number("id"), mac())]
    raise ValueError("unknown operation %s %s" % (subject, verb))


def parse(line):
    """(subject, verb, [(name or None, value)], expected results or None)."""
    words = re.findall(r'(?:[^\s"]|"[^"]*")+', line)
    expected = None
    if "->" in words:
        arrow = words.index("->")
        expected = [int(word) for word in words[arrow + 1:]]
        words = words[:arrow]
    args = []
    for word in words[2:]:
        name, equals, value = word.partition("=")
        args.append((name, value) if equals and '"' not in name else (None, word))
    return words[0], words[1], args, expected


def lines_of(text):
    """(line number, line), repeated lines written out."""
    for number, line in enumerate(text.splitlines(), 1):
        if not line or line.startswith("#"):
            continue
        match = re.match(r"\{(\d+)\.\.(\d+)\} (.*)", line)
        if not match:
            yield number, line
            continue
        for n in range(int(match[1]), int(match[2]) + 1):
            yield number, match[3].replace("{}", str(n))


def run_history():
    device = Device()
    text = (GOLDEN / "history.txt").read_text()
    for number, line in lines_of(text):
        try:
            subject, verb, args, expected = parse(line)
            areas = [subject]
            if subject == "all":
                areas = [area for area in AREAS if area != "ApUserList" or verb != "flash"]
            for area in areas:
                results = step(device, area, verb, args)
                if results != expected:
                    raise ValueError("gives %s" % results)
        except Exception as problem:
            sys.exit("history.txt:%d: %s: %s" % (number, line, problem))
    return device.blocks


def unseen(blocks):
    """Named fields that hold nothing but zeroes in every record: the history misses them."""
    for area, (_, _, fields) in AREAS.items():
        for table, spot in fields.items():
            if len(spot) != 4:
                if not any(blocks[area][spot[0]:spot[0] + spot[1]]):
                    yield "%s %s" % (area, table)
                continue
            at, record, stride, count = spot
            for field, (inner, width, *_) in RECORDS[record].items():
                if not any(any(blocks[area][at + n * stride + inner:][:width])
                           for n in range(count)):
                    yield "%s %s[].%s" % (area, table, field)


def main():
    if sys.argv[1:] not in ([], ["--check"]):
        sys.exit(__doc__)
    blocks = run_history()
    missed = list(unseen(blocks))
    if missed:
        sys.exit("history.txt leaves these fields zero: " + ", ".join(missed))
    images = {}
    for area, block in blocks.items():
        stem = STEMS.get(area, area.lower())
        name = "apuserlist" if area == "ApUserList" else "config_%s.cfg" % stem
        images[name + ".gz"] = bytes(block)
    folder = GOLDEN / "images"
    status = 0
    for name, image in images.items():
        path = folder / name
        if path.exists() and gzip.decompress(path.read_bytes()) == image:
            continue
        if sys.argv[1:]:
            print("images/%s is not what history.txt leaves" % name)
            status = 1
        else:
            path.write_bytes(gzip.compress(image, 9, mtime=0))
    for path in folder.iterdir():
        if path.name not in images:
            print("images/%s belongs to no area" % path.name)
            status = 1
    sys.exit(status)


main()
