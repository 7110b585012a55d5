package vex.bench;

/** Signatures by natives that call OpenSSL themselves. */
final class HandWrittenSigner {
    private HandWrittenSigner() {}

    static native void startLog(String file);

    static native long open(String pemFile);

    static native String contractP1(long handle, String text);

    static native String contractPss(long handle, String text);

    /** The digest is one of SHA-256, in Base64. */
    static native String contractDigest(long handle, String digest);

    static native String contractP7(long handle, String text);

    static native String straightP1(long handle, String text);

    static native String straightP7(long handle, String text);
}
