/* A target's key routine in a shared library of its own, as a user hands one to
 * `varnel lin flash --key-routine LIB.so:FUNCTION`: the seed XOR the key constant. */
#include <stdint.h>

uint16_t key_by_xor(uint16_t seed, uint16_t key_constant) {
  return (uint16_t)(seed ^ key_constant);
}
