package vex.bench;

/** The bridge's natives, written by hand. */
final class HandWrittenBridge {
    static native void startLog(String file);

    native long SetChooseSingleCert(long handle, int isChoose);

    native String P1SignString(long handle, String bstrValue);
}
