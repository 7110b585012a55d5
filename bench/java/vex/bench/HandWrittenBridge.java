package vex.bench;

/** Natives as the bridge has them, written by hand. */
final class HandWrittenBridge {
    static native void startLog(String file);

    native long SetChooseSingleCert(long handle, int isChoose);

    native String P1SignString(long handle, String bstrValue);
}
