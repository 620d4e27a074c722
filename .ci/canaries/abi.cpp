// Built twice, with two types: the interface of the two libraries differs.

struct Canary {
  CANARY_TYPE value;
};

CANARY_TYPE canary(Canary given) {
  return given.value;
}
