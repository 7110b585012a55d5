// libTAVClientJNIBinding.so has no code. It needs the bridge and nothing else.
//
// A JVM loads the same file for one class loader only. So each class loader that uses the bundled jar loads its own
// copy of this library. The dynamic linker knows the bridge by its SONAME and maps it once. The JVM finds the natives
// in it, because dlsym also searches the libraries that a library needs. All class loaders share one bridge and its
// log.
