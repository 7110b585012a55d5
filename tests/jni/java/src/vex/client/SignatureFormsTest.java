package vex.client;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertSame;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.sun.management.ThreadMXBean;
import java.lang.management.ManagementFactory;
import java.math.BigInteger;
import java.util.HexFormat;
import org.junit.jupiter.api.Tag;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.CsvSource;
import org.junit.jupiter.params.provider.ValueSource;
import vex.jni.VCTKError;

/** The parts that signatures are made of: names, texts, collected data, DER. */
@Tag("client")
class SignatureFormsTest {
    private static byte[] hex(String text) {
        return HexFormat.of().parseHex(text.replace(" ", ""));
    }

    @ParameterizedTest
    @CsvSource({"SHA-256,SHA_256", "sha256,SHA_256", "SHA2-256,SHA_256", "SHA224,SHA_224", "SHA2-224,SHA_224",
        "SHA-512/256,SHA_512_256", "SHA512-256,SHA_512_256", "SHA2-512/224,SHA_512_224", "SHA512/224,SHA_512_224",
        "SHA3-256,SHA3_256", "sha3-512,SHA3_512"})
    void readsTheNamesOfDigests(String name, Digest digest) {
        assertEquals(digest, Digest.of(name));
        assertEquals(digest.length(), digest.newMessageDigest().getDigestLength());
    }

    @ParameterizedTest
    @ValueSource(strings = {"", "SHA-1", "SHA1", "MD5", "SHA-2", "SHAKE256", "SHA-256/PSS", "prehashed:SHA-256",
        "NONE"})
    void otherNamesAreUnknown(String name) {
        assertNull(Digest.of(name));
    }

    // ---- Texts ----

    /** A long text has to be no more in memory than its characters. */
    @Test
    void checksATextInPieces() throws Exception {
        String text = "\u4e00".repeat(1 << 23);
        ThreadMXBean threads = (ThreadMXBean) ManagementFactory.getThreadMXBean();
        NativeText.requireToSign("\u4e00");
        long before = threads.getCurrentThreadAllocatedBytes();
        assertSame(text, NativeText.requireToSign(text));
        long allocated = threads.getCurrentThreadAllocatedBytes() - before;
        assertTrue(allocated < 1 << 20, "allocated " + allocated);
    }

    // ---- Collected data ----

    @Test
    void collectsUpToTheLimit() throws Exception {
        DataCollector data = new DataCollector(4);
        data.add(new byte[] {1, 2, 3}, 0, 3);
        assertArrayEquals(new byte[] {1, 2, 3}, data.take());
        data.add(new byte[] {1, 2, 3, 4, 5}, 1, 4);
        data.add(new byte[0], 0, 0);
        assertArrayEquals(new byte[] {2, 3, 4, 5}, data.take());
        assertArrayEquals(new byte[0], data.take());
    }

    @Test
    void refusesDataBeyondTheLimitAndSignsNoPartOfIt() throws Exception {
        DataCollector data = new DataCollector(4);
        data.add(new byte[4], 0, 4);
        for (int length : new int[] {1, 0, 1}) {
            SigningException e = assertThrows(SigningException.class, () -> data.add(new byte[1], 0, length));
            assertEquals(VCTKError.TOO_LARGE, e.number());
        }
        assertThrows(SigningException.class, data::take);
        data.add(new byte[4], 0, 4);
        assertEquals(4, data.take().length);
    }

    // ---- DER ----

    @ParameterizedTest
    @CsvSource({"ffff, 30 06 02 01 01 02 01 02, 0001 0002", "ff, 30 06 02 01 01 02 01 02, 01 02",
        "ffff, 30 0a 02 03 00 ff fe 02 03 00 80 00, fffe 8000", "1ff, 30 07 02 02 01 ff 02 01 7f, 01ff 007f"})
    void splitsSignatures(String order, String der, String expected) throws Exception {
        assertArrayEquals(hex(expected), EcdsaSignature.toP1363(hex(der), new BigInteger(order, 16)));
    }

    @ParameterizedTest
    @ValueSource(strings = {"", "30", "30 06 02 01 01 02 01", "31 06 02 01 01 02 01 02", "30 06 03 01 01 02 01 02",
        "30 08 02 02 01 01 02 02 01 01", "30 86 ff ff ff ff ff ff", "30 84 ff ff ff ff 02"})
    void refusesMalformedSignatures(String der) {
        SigningException e = assertThrows(
            SigningException.class, () -> EcdsaSignature.toP1363(hex(der), BigInteger.valueOf(0xff)));
        assertEquals(VCTKError.INTERNAL, e.number());
    }

    /** A detached signature with its least elements: type, version, no digests, content type, and the rest. */
    private static final byte[] DETACHED = hex("30 14 06 01 2a a0 0f 30 0d 02 01 01 31 00 30 03 06 01 2b 05 00 05 00");

    @ParameterizedTest
    @CsvSource({"1,2", "100,2", "120,2", "127,2", "128,3", "255,3", "256,4", "65535,4", "65536,5", "16777216,6"})
    void putsContentIntoASignature(int length, int header) throws Exception {
        AttachedCms cms = new AttachedCms(DETACHED, length);
        DerReader reader = new DerReader(cms.der());
        assertEquals(cms.der().length, reader.enter(DerReader.SEQUENCE));
        reader.skip(DerReader.OBJECT_IDENTIFIER);
        assertEquals(cms.der().length, reader.enter(DerReader.CONTEXT_0));
        assertEquals(cms.der().length, reader.enter(DerReader.SEQUENCE));
        reader.skip(DerReader.INTEGER);
        reader.skip(DerReader.SET);
        int end = reader.enter(DerReader.SEQUENCE);
        assertEquals(cms.der().length - 4, end, "the rest follows");
        reader.skip(DerReader.OBJECT_IDENTIFIER);
        assertEquals(end, reader.enter(DerReader.CONTEXT_0));
        int begin = reader.position();
        assertEquals(end, reader.enter(DerReader.OCTET_STRING));
        assertEquals(header, reader.position() - begin);
        assertEquals(cms.contentBegin(), reader.position());
        assertEquals(length, end - cms.contentBegin());
        assertEquals(5, cms.der()[end]);
    }

    @Test
    void refusesASignatureThatIsTooLongOrHasAContent() throws Exception {
        for (long length : new long[] {Integer.MAX_VALUE - 8, 1L << 40}) {
            SigningException e = assertThrows(SigningException.class, () -> new AttachedCms(DETACHED, length));
            assertEquals(VCTKError.TOO_LARGE, e.number());
            assertTrue(e.getMessage().contains("make a detached one"), e.getMessage());
        }
        byte[] attached = new AttachedCms(DETACHED, 3).der();
        assertEquals(VCTKError.INTERNAL,
            assertThrows(SigningException.class, () -> new AttachedCms(attached, 3)).number());
    }
}
