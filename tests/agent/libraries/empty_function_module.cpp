// A function module that adds no functions: it exports nothing that the engine knows.
extern "C" int FunctionOfNoInterest() {
  return 1;
}
