package vex.jni;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNotNull;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.security.cert.X509Certificate;
import java.util.List;
import java.util.Optional;
import java.util.Random;
import org.junit.jupiter.api.Tag;
import org.junit.jupiter.api.Test;

/**
 * Only the caller's text is signed: under any locale, a random text is signed as its bytes in the encoding of the
 * locale, or refused with a reason. VEX_TEST_RANDOM_TEXTS is the number of texts.
 */
@Tag("natives")
@Tag("ascii-locale")
@Tag("random-texts")
class RandomTextsTest {
    private static final int TEXTS = Amount.of("VEX_TEST_RANDOM_TEXTS", 100);

    /** A client with one key, and its certificate. */
    private record Signer(Client client, X509Certificate certificate) {}

    private int signed;
    private int notInLocale;
    private int noText;
    private int longest;
    private long bytesSigned;

    @Test
    void signsTextsUnchangedOrRefusesThem() throws Exception {
        LocaleEncoding locale = LocaleEncoding.ofProcess();
        Random random = new Random(Amount.seedOfRun());
        RandomTexts texts = new RandomTexts(random, locale::has);
        try (Client rsa = Client.openDemo(Client.RSA); Client ec = Client.openDemo(Client.EC)) {
            List<Signer> signers =
                List.of(new Signer(rsa, Signatures.signerOf(rsa)), new Signer(ec, Signatures.signerOf(ec)));
            for (int i = 0; i < TEXTS; ++i) {
                String text = texts.next();
                try {
                    check(signers.get(random.nextInt(2)), text, locale.encode(text), random);
                } catch (Exception | AssertionError e) {
                    throw new AssertionError("text " + i + " of " + TEXTS + ", " + text.length()
                        + " units, seed " + Amount.seedOfRun() + ": " + start(text), e);
                }
                longest = Math.max(longest, text.length());
            }
        }
        System.err.printf("%s: %d texts, %d of them signed (%d bytes), %d refused because the locale lacks a character,"
            + " %d because they are none; longest %d units; %d characters are not those of the JDK%n",
            locale.name(), TEXTS, signed, bytesSigned, notInLocale, noText, longest, locale.differences());
        assertEquals(TEXTS, signed + notInLocale + noText);
        assertTrue(signed > 0 && noText > 0, "texts of each kind");
    }

    private void check(Signer signer, String text, Optional<byte[]> bytes, Random random) throws Exception {
        boolean p1 = random.nextInt(3) != 0;
        boolean detached = random.nextBoolean();
        boolean withCertificate = random.nextBoolean();
        Client client = signer.client();
        // This error stays the last one if the toolkit is not asked.
        assertEquals(1, Client.NATIVES.SetDigestAlg(client.handle(), "MD5"));

        String signature = p1 ? client.p1SignString(text) : client.p7SignString(text, detached, withCertificate);
        if (text.isEmpty() || text.indexOf('\0') >= 0 || hasUnpairedSurrogate(text)) {
            ++noText;
            assertNull(signature);
            assertEquals(VCTKError.DIGEST_WEAK, client.lastError());
            assertNotNull(client.lastMessage());
        } else if (bytes.isEmpty()) {
            ++notInLocale;
            assertNull(signature);
            assertEquals(VCTKError.DATA_EMPTY, client.lastError());
            assertTrue(client.lastMessage().contains("locale"), client.lastMessage());
        } else {
            ++signed;
            bytesSigned += bytes.get().length;
            client.require(signature);
            if (p1) {
                assertTrue(Signatures.isP1Good(signature, bytes.get(), signer.certificate(), "SHA256"));
            } else {
                Signatures.assertP7(signature, bytes.get(), detached, withCertificate, signer.certificate(),
                    Signatures.SHA256_OID);
            }
        }
    }

    private static boolean hasUnpairedSurrogate(String text) {
        return text.codePoints().anyMatch(c -> c >= Character.MIN_SURROGATE && c <= Character.MAX_SURROGATE);
    }

    /** The first units, as escapes of a Java string. */
    private static String start(String text) {
        StringBuilder units = new StringBuilder();
        text.chars().limit(40).forEach(unit -> units.append(String.format("\\u%04x", unit)));
        return units.toString();
    }
}
