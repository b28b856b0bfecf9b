/** A library, but not a feature module. */
extern "C" __attribute__((visibility("default"))) int SomethingElse();

int SomethingElse() {
  return 1;
}
