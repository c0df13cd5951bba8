/* Dotted text of an IPv4 address, without the printf family: it is most of what a listing costs. */
#include <string.h>

#include <sysconfig/core.h>

namespace {

char* put_octet(char* at, unsigned octet) {
  if (octet >= 100) *at++ = static_cast<char>('0' + octet / 100);
  if (octet >= 10) *at++ = static_cast<char>('0' + octet / 10 % 10);
  *at++ = static_cast<char>('0' + octet % 10);
  return at;
}

}  // namespace

/* Required: appends to what dst holds. */
char* sc_inet_ntoa(uint32_t addr, char* dst) {
  char* at = dst + strlen(dst);
  for (int shift = 0; shift < 32; shift += 8) {
    at = put_octet(at, addr >> shift & 0xff);
    *at++ = '.';
  }
  at[-1] = '\0';
  return dst;
}
