// A warning that only g++ gives.

int main(int argc, char**) {
  if (argc > 1) {
    return 1;
  } else if (argc > 1) {
    return 2;
  }
  return 0;
}
