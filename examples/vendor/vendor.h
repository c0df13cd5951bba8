/* What a vendor's firmware keeps in the bytes that the library leaves to it. The vendor is made up; the
 * structs have what such structs have: bits, enums, a union, the other byte order, passwords. */
#ifndef VENDOR_H
#define VENDOR_H

#include <stdint.h>

/* ---- WAN: the 956 bytes of a section ---- */

#define WAN_MAGIC 0x314e4157u /* in a section that is set up */

enum wan_mode { WAN_OFF, WAN_FIXED, WAN_DHCP, WAN_PPPOE };

struct wan_fixed {
  uint32_t address; /* in network order, as all addresses */
  uint32_t mask;
  uint32_t gateway;
};

struct wan_pppoe {
  char user[64];
  char password[64];
  char service[32];
  uint16_t idle_minutes;
  uint16_t redial_seconds;
};

/* Sent to the access server as it stands. */
struct wan_probe {
  uint32_t interval_ms;
  uint16_t port;
  uint16_t tries;
} __attribute__((scalar_storage_order("big-endian")));

struct wan_section {
  uint32_t magic;
  uint16_t mtu;
  uint16_t enabled : 1;
  uint16_t nat : 1;
  uint16_t answers_ping : 1;
  uint16_t priority : 3;
  uint16_t line : 10;
  enum wan_mode mode;
  uint8_t mac[6];
  uint16_t vlan;
  char host_name[32];
  uint32_t dns[2];
  union {
    struct wan_fixed fixed;
    struct wan_pppoe pppoe;
  };
  struct wan_probe probe;
  uint32_t port_count;
  uint16_t ports[8];
  char pass_through[64]; /* names of services */
  int32_t skew;
};

/* ---- access points: the last 504 bytes of a record ---- */

enum ap_security { AP_OPEN, AP_WPA2, AP_WPA3 };

struct ap_network {
  char name[33];
  uint8_t hidden;
  uint16_t vlan;
  enum ap_security security;
  char psk[64];
};

struct ap_radio {
  uint8_t channel;
  int8_t power;
  uint8_t width;
  uint8_t enabled;
  struct ap_network networks[2];
};

struct ap_vendor {
  uint32_t uptime;
  uint32_t last_address;
  uint16_t temperature[2];
  struct ap_radio radios[2];
};

/* ---- product information ---- */

struct product_info {
  char model[32];
  char serial[32];
  uint8_t mac[6];
  uint8_t revision[2];
  uint32_t features;
  char admin_password[32];
  uint8_t license_key[16];
  float calibration;
  uint32_t made;
};

#endif
