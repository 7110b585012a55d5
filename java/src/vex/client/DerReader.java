package vex.client;

import vex.jni.VCTKError;

/** Goes through the elements of a DER text from the toolkit. For one thread at a time. */
final class DerReader {
    static final int INTEGER = 0x02;
    static final int OCTET_STRING = 0x04;
    static final int OBJECT_IDENTIFIER = 0x06;
    static final int SEQUENCE = 0x30;
    static final int SET = 0x31;
    /** [0] EXPLICIT */
    static final int CONTEXT_0 = 0xa0;

    private static final int LONG_FORM = 0x80;

    private final byte[] der;
    private int position;

    DerReader(byte[] der) {
        this.der = der;
    }

    int position() {
        return position;
    }

    /** Goes to the content of the next element and returns where it ends. */
    int enter(int tag) throws SigningException {
        if (next() != tag) {
            throw malformed();
        }
        int length = next();
        if (length >= LONG_FORM) {
            int bytes = length - LONG_FORM;
            length = 0;
            for (int i = 0; i < bytes; ++i) {
                if (length > Integer.MAX_VALUE >> 8) {
                    throw malformed();
                }
                length = length << 8 | next();
            }
        }
        if (length > der.length - position) {
            throw malformed();
        }
        return position + length;
    }

    /** Goes behind the next element and returns where its content begins. */
    int skip(int tag) throws SigningException {
        int end = enter(tag);
        int begin = position;
        position = end;
        return begin;
    }

    private int next() throws SigningException {
        if (position == der.length) {
            throw malformed();
        }
        return der[position++] & 0xff;
    }

    static SigningException malformed() {
        return SigningException.of(VCTKError.INTERNAL, "the toolkit's signature is not the DER form that is expected");
    }
}
