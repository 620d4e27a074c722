// Half of it never runs.

int main(int argc, char**) {
  int result = argc;
  if (argc > 100) {
    result *= 2;
    result += 1;
    result *= 3;
  }
  return result == 1 ? 0 : 1;
}
