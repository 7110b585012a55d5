package vex.client;

import vex.jni.VCTKError;

/** Goes through the elements of a DER text from the toolkit. For one thread at a time. */
final class DerReader {
    static final int INTEGER = 0x02;
    static final int OCTET_STRING = 0x04;
    static final int OBJECT_IDENTIFIER = 0x06;
    static final int UTF8_STRING = 0x0c;
    static final int SEQUENCE = 0x30;
    static final int SET = 0x31;
    /** [0] EXPLICIT, or IMPLICIT of a SET */
    static final int CONTEXT_0 = 0xa0;
    /** [1] IMPLICIT of a SET */
    static final int CONTEXT_1 = 0xa1;
    /** [0] IMPLICIT of an OCTET STRING */
    static final int SUBJECT_KEY_IDENTIFIER = 0x80;

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

    /** Goes behind the next element if it has this tag. */
    boolean skipIf(int tag) throws SigningException {
        boolean present = position < der.length && (der[position] & 0xff) == tag;
        if (present) {
            skip(tag);
        }
        return present;
    }

    /** Goes to a later place, where an element ends. */
    void skipTo(int end) {
        position = end;
    }

    /** Goes behind the next element, an OID, and returns it with dots. */
    String objectIdentifier() throws SigningException {
        int at = skip(OBJECT_IDENTIFIER);
        StringBuilder text = new StringBuilder();
        while (at < position) {
            long arc = 0;
            int octet;
            do {
                if (at == position || arc > Long.MAX_VALUE >> 7) {
                    throw malformed();
                }
                octet = der[at++];
                arc = arc << 7 | octet & 0x7f;
            } while (octet < 0);
            if (text.length() == 0) {
                long first = Math.min(arc / 40, 2);
                text.append(first);
                arc -= 40 * first;
            }
            text.append('.').append(arc);
        }
        return text.toString();
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
