package vex.client;

import java.nio.ByteBuffer;
import vex.jni.VCTKError;

/** A CMS signature made from a detached one: with room for the content, which the caller fills in. */
final class AttachedCms {
    /** The JVM makes no longer arrays. */
    private static final int MAX_LENGTH = Integer.MAX_VALUE - 8;

    private final byte[] der;
    private final int contentBegin;

    /** @throws SigningException also if the result does not fit into an array */
    AttachedCms(byte[] detached, long contentLength) throws SigningException {
        // RFC 5652 sections 3, 5.1 and 5.2. All the elements around the content get a longer length.
        DerReader reader = new DerReader(detached);
        reader.enter(DerReader.SEQUENCE);
        int type = reader.position();
        reader.skip(DerReader.OBJECT_IDENTIFIER);
        int typeEnd = reader.position();
        reader.enter(DerReader.CONTEXT_0);
        reader.enter(DerReader.SEQUENCE);
        int version = reader.position();
        reader.skip(DerReader.INTEGER);
        reader.skip(DerReader.SET);
        int digestsEnd = reader.position();
        int rest = reader.enter(DerReader.SEQUENCE);
        int contentType = reader.position();
        reader.skip(DerReader.OBJECT_IDENTIFIER);
        if (reader.position() != rest) {
            throw DerReader.malformed();
        }

        long octets = contentLength;
        long explicit = withHeader(octets);
        long encapsulated = rest - contentType + withHeader(explicit);
        long signedData = digestsEnd - version + withHeader(encapsulated) + (detached.length - rest);
        long content = withHeader(signedData);
        long whole = typeEnd - type + withHeader(content);
        requireArray(withHeader(whole));

        der = new byte[(int) withHeader(whole)];
        ByteBuffer out = ByteBuffer.wrap(der);
        putHeader(out, DerReader.SEQUENCE, whole);
        out.put(detached, type, typeEnd - type);
        putHeader(out, DerReader.CONTEXT_0, content);
        putHeader(out, DerReader.SEQUENCE, signedData);
        out.put(detached, version, digestsEnd - version);
        putHeader(out, DerReader.SEQUENCE, encapsulated);
        out.put(detached, contentType, rest - contentType);
        putHeader(out, DerReader.CONTEXT_0, explicit);
        putHeader(out, DerReader.OCTET_STRING, octets);
        contentBegin = out.position();
        out.position(contentBegin + (int) contentLength);
        out.put(detached, rest, detached.length - rest);
    }

    /** @throws SigningException if the signature cannot contain so much */
    static void requireArray(long length) throws SigningException {
        if (length > MAX_LENGTH) {
            throw SigningException.tooLarge(
                "A signature that contains its content has at most " + MAX_LENGTH + " bytes; make a detached one");
        }
    }

    /** The signature. It is complete when the content is in its place. */
    byte[] der() {
        return der;
    }

    int contentBegin() {
        return contentBegin;
    }

    private static long withHeader(long length) {
        return 2 + lengthBytes(length) + length;
    }

    /** The number of bytes in the long form of a length; 0 for the short form. */
    private static int lengthBytes(long length) {
        return length < 0x80 ? 0 : (Long.SIZE - Long.numberOfLeadingZeros(length) + 7) / 8;
    }

    private static void putHeader(ByteBuffer out, int tag, long length) {
        out.put((byte) tag);
        int bytes = lengthBytes(length);
        out.put((byte) (bytes == 0 ? length : 0x80 + bytes));
        for (int i = bytes - 1; i >= 0; --i) {
            out.put((byte) (length >> (8 * i)));
        }
    }
}
