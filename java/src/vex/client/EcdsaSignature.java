package vex.client;

import java.math.BigInteger;

/** The two forms of ECDSA signatures. */
final class EcdsaSignature {
    private EcdsaSignature() {}

    /**
     * Converts the DER sequence of r and s (RFC 3279 section 2.2.3) to their bytes one behind the other (IEEE P1363),
     * each as long as the order of the curve.
     */
    static byte[] toP1363(byte[] der, BigInteger order) throws SigningException {
        int length = (order.bitLength() + 7) / 8;
        byte[] signature = new byte[2 * length];
        DerReader reader = new DerReader(der);
        reader.enter(DerReader.SEQUENCE);
        copyNumber(reader, der, signature, length);
        copyNumber(reader, der, signature, 2 * length);
        return signature;
    }

    /** @param end where the number ends in the signature */
    private static void copyNumber(DerReader reader, byte[] der, byte[] signature, int end) throws SigningException {
        int begin = reader.skip(DerReader.INTEGER);
        int bytes = reader.position() - begin;
        if (bytes > 1 && der[begin] == 0) {
            ++begin;  // only says that the number is positive
            --bytes;
        }
        if (bytes > signature.length / 2) {
            throw DerReader.malformed();
        }
        System.arraycopy(der, begin, signature, end - bytes, bytes);
    }
}
