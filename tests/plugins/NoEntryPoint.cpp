// A library that is no plug-in.
extern "C" int somethingElse() { return 1; }
