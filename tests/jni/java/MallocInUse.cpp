// The memory that malloc has given out in this process, for the Java class vex.jni.MallocInUse.
#include <jni.h>
#include <malloc.h>

extern "C" JNIEXPORT jlong JNICALL Java_vex_jni_MallocInUse_bytes(JNIEnv*, jclass) {
    const struct mallinfo2 info = mallinfo2();  // the sum over all arenas
    return static_cast<jlong>(info.uordblks + info.hblkhd);
}
