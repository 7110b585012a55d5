package vex.jni;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.ByteArrayOutputStream;
import java.math.BigInteger;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.security.cert.X509Certificate;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.Base64;
import java.util.Collections;
import java.util.HexFormat;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;
import java.util.Random;
import java.util.Set;
import java.util.TreeMap;
import java.util.stream.IntStream;
import org.bouncycastle.asn1.DEROctetString;
import org.bouncycastle.asn1.DERTaggedObject;
import org.bouncycastle.asn1.cms.CMSObjectIdentifiers;
import org.bouncycastle.cms.CMSSignedData;
import org.bouncycastle.cms.SignerInformation;
import org.junit.jupiter.api.Tag;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;

/**
 * Verifies signatures of every kind with openssl, the JDK and Bouncy Castle: all three accept them, and after a change
 * of one bit none accepts them for other content. VEX_TEST_COMBINATIONS is the number of signatures, VEX_TEST_FLIPS the
 * number of changes to each.
 */
@Tag("third-parties")
class ThirdPartiesTest {
    private static final int COMBINATIONS = Amount.of("VEX_TEST_COMBINATIONS", 12);
    private static final int FLIPS = Amount.of("VEX_TEST_FLIPS", 2);

    private static final List<String> KEYS =
        List.of("RSA-2048", "RSA-3072", "RSA-4096", "secp256r1", "secp384r1", "secp521r1");

    private static final List<Verifiers.Digest> DIGESTS = List.of(
        new Verifiers.Digest("SHA-224", "SHA-224", "SHA224", "sha224", "2.16.840.1.101.3.4.2.4"),
        new Verifiers.Digest("SHA-256", "SHA-256", "SHA256", "sha256", "2.16.840.1.101.3.4.2.1"),
        new Verifiers.Digest("SHA-384", "SHA-384", "SHA384", "sha384", "2.16.840.1.101.3.4.2.2"),
        new Verifiers.Digest("SHA-512", "SHA-512", "SHA512", "sha512", "2.16.840.1.101.3.4.2.3"),
        new Verifiers.Digest("SHA-512/224", "SHA-512/224", "SHA512/224", "sha512-224", "2.16.840.1.101.3.4.2.5"),
        new Verifiers.Digest("SHA-512/256", "SHA-512/256", "SHA512/256", "sha512-256", "2.16.840.1.101.3.4.2.6"),
        new Verifiers.Digest("SHA3-224", "SHA3-224", "SHA3-224", "sha3-224", "2.16.840.1.101.3.4.2.7"),
        new Verifiers.Digest("SHA3-256", "SHA3-256", "SHA3-256", "sha3-256", "2.16.840.1.101.3.4.2.8"),
        new Verifiers.Digest("SHA3-384", "SHA3-384", "SHA3-384", "sha3-384", "2.16.840.1.101.3.4.2.9"),
        new Verifiers.Digest("SHA3-512", "SHA3-512", "SHA3-512", "sha3-512", "2.16.840.1.101.3.4.2.10"));

    private enum Form {
        P1, P7_DETACHED, P7_DETACHED_WITH_CERTIFICATE, P7_ATTACHED, P7_ATTACHED_WITH_CERTIFICATE;

        boolean isDetached() {
            return this == P7_DETACHED || this == P7_DETACHED_WITH_CERTIFICATE;
        }

        boolean hasCertificate() {
            return this == P7_DETACHED_WITH_CERTIFICATE || this == P7_ATTACHED_WITH_CERTIFICATE;
        }
    }

    /** Given to the toolkit as text or as Base64. */
    private record Content(boolean asText, byte[] bytes) {}

    private record Combination(String key, Verifiers.Digest digest, Form form) {}

    /** A client with one key, the key's chain, and the verifiers of its signatures, who know only the root. */
    private record Signer(Client client, List<X509Certificate> chain, Verifiers verifiers) {
        X509Certificate certificate() {
            return chain.get(0);
        }

        Set<X509Certificate> included(Form form) {
            return form.hasCertificate() ? Set.copyOf(chain.subList(0, chain.size() - 1)) : Set.of();
        }
    }

    /** The place of each changed bit and the result, and how often they occurred. */
    private final Map<String, Integer> flips = new TreeMap<>();
    private final Random random = new Random(Amount.seedOfRun());
    private int signatures;
    private int readAsJars;
    private int emptyRefused;
    private int unnamedRefused;

    @TempDir
    private Path directory;

    @Test
    void acceptsEachSignatureAndNoChangedOne() throws Exception {
        List<Combination> all = new ArrayList<>();
        for (String key : KEYS) {
            for (Verifiers.Digest digest : DIGESTS) {
                for (Form form : Form.values()) {
                    all.add(new Combination(key, digest, form));
                }
            }
        }
        Map<String, Signer> signers = new LinkedHashMap<>();
        for (int i = 0; signatures < COMBINATIONS; ++i) {
            if (i % all.size() == 0) {
                Collections.shuffle(all, random);
            }
            Combination combination = all.get(i % all.size());
            if (!signers.containsKey(combination.key())) {
                signers.put(combination.key(), open(combination.key()));
            }
            try {
                check(signers.get(combination.key()), combination);
            } catch (Exception | AssertionError e) {
                throw new AssertionError(combination + ", number " + i + ", seed " + Amount.seedOfRun(), e);
            }
        }
        signers.values().forEach(signer -> signer.client().close());
        System.err.printf("%d signatures accepted by openssl, the JDK and Bouncy Castle, %d of them by the JDK's reader"
            + " of signed jars; refused: %d for empty content, %d P7 for ECDSA with a digest CMS has no name for%n",
            signatures, readAsJars, emptyRefused, unnamedRefused);
        flips.forEach((where, count) -> System.err.printf("one bit changed in %s: %d%n", where, count));
    }

    private Signer open(String key) throws Exception {
        Path own = Files.createDirectory(directory.resolve(key));
        List<TestStore.Identity> identities = TestStore.chain(key, 2 + random.nextInt(3));
        List<X509Certificate> chain = identities.stream().map(TestStore.Identity::certificate).toList();
        String store;
        if (random.nextBoolean()) {
            StringBuilder pem = new StringBuilder();
            pem.append(TestStore.pem("PRIVATE KEY", identities.get(0).key().getEncoded()));
            List<X509Certificate> shuffled = new ArrayList<>(chain);
            Collections.shuffle(shuffled, random);
            for (X509Certificate certificate : shuffled) {
                pem.append(TestStore.pem("CERTIFICATE", certificate.getEncoded()));
            }
            store = "file:" + Files.writeString(own.resolve("keys.pem"), pem) + "?chain=store";
        } else {
            Path file = own.resolve("keys.p12");
            TestStore.writeChain(file, identities);
            store = "file:" + file + "?pin-value=" + TestStore.PIN.replace(" ", "%20") + "&chain=store";
        }
        return new Signer(Client.open(store), chain, new Verifiers(chain, own));
    }

    private Content content() {
        int length = switch (random.nextInt(24)) {
            case 0 -> 0;
            case 1 -> random.nextInt(RandomTexts.LONGEST);
            default -> 1 + random.nextInt(300);
        };
        if (random.nextBoolean()) {
            byte[] bytes = new byte[length];
            random.nextBytes(bytes);
            return new Content(false, bytes);
        }
        String text = new RandomTexts(random, Character::isDefined).signable(length);
        return new Content(true, text.getBytes(StandardCharsets.UTF_8));
    }

    private String sign(Client client, Form form, Content content) {
        String text = content.asText() ? new String(content.bytes(), StandardCharsets.UTF_8)
                                       : Base64.getEncoder().encodeToString(content.bytes());
        if (form == Form.P1) {
            return content.asText() ? client.p1SignString(text) : client.p1Sign(text);
        }
        return content.asText() ? client.p7SignString(text, form.isDetached(), form.hasCertificate())
                                : client.p7Sign(text, form.isDetached(), form.hasCertificate());
    }

    private void check(Signer signer, Combination combination) throws Exception {
        Form form = combination.form();
        Content content = content();
        signer.client().setDigest(combination.digest().name());
        String base64 = sign(signer.client(), form, content);
        if (content.bytes().length == 0) {
            ++emptyRefused;
            assertNull(base64);
            return;
        }
        if (base64 == null) {
            // CMS, or at least OpenSSL 3.0, has no name for ECDSA with this digest.
            assertTrue(form != Form.P1 && combination.digest().name().matches("SHA3-.*|SHA-512/.*")
                && !combination.key().startsWith("RSA"), signer.client()::lastMessage);
            assertEquals(VCTKError.SIGN_FAILED, signer.client().lastError());
            ++unnamedRefused;
            return;
        }
        ++signatures;
        byte[] signature = Base64.getDecoder().decode(base64);
        assertAccepted(opinions(signer, combination, signature, content.bytes()), content.bytes());
        if (form != Form.P1) {
            Signatures.assertP7Form(base64, content.bytes(), form.isDetached(), signer.certificate(),
                signer.included(form), combination.digest().oid());
        }
        if (form.hasCertificate()) {
            assertTrue(Verifiers.isGoodForJars(signature, form.isDetached() ? content.bytes() : null), "as of a jar");
            ++readAsJars;
        }
        for (int i = 0; i < FLIPS; ++i) {
            if (form == Form.P1) {
                flipInP1(signer, combination, signature, content.bytes());
            } else {
                flipInP7(signer, combination, signature, content.bytes());
            }
        }
    }

    private static List<Verifiers.Opinion> opinions(Signer signer, Combination combination, byte[] signature,
            byte[] content) throws Exception {
        return combination.form() == Form.P1
            ? signer.verifiers().onP1(signature, content, combination.digest())
            : signer.verifiers().onP7(signature, combination.form().isDetached() ? content : null,
                combination.digest(), combination.form().hasCertificate());
    }

    private static void assertAccepted(List<Verifiers.Opinion> opinions, byte[] content) {
        for (Verifiers.Opinion opinion : opinions) {
            assertTrue(opinion.content().isPresent(), () -> opinion.verifier() + " rejects");
            assertArrayEquals(content, opinion.content().get(), opinion::verifier);
        }
    }

    /** @param changed the changed bit, for the report */
    private static void assertRejected(List<Verifiers.Opinion> opinions, String changed) {
        for (Verifiers.Opinion opinion : opinions) {
            assertFalse(opinion.content().isPresent(), () -> opinion.verifier() + " accepts " + changed);
        }
    }

    private byte[] flipped(byte[] bytes, int bit) {
        byte[] changed = bytes.clone();
        changed[bit / 8] ^= (byte) (1 << bit % 8);
        return changed;
    }

    private static String hex(byte[] bytes) {
        return HexFormat.of().formatHex(bytes);
    }

    private void count(String where) {
        flips.merge(where, 1, Integer::sum);
    }

    private void flipInP1(Signer signer, Combination combination, byte[] signature, byte[] content) throws Exception {
        if (random.nextBoolean()) {
            byte[] changed = flipped(content, random.nextInt(content.length * 8));
            assertRejected(opinions(signer, combination, signature, changed), "changed content");
            count("the content of P1, rejected");
        } else {
            int bit = random.nextInt(signature.length * 8);
            byte[] changed = flipped(signature, bit);
            assertRejected(opinions(signer, combination, changed, content), "bit " + bit + " of " + hex(signature));
            count("a P1 signature, rejected");
        }
    }

    /**
     * Half of the changes are in bits that the signature protects. The others are anywhere: also in bits that describe
     * the structure, or that nothing protects. There a verifier may ignore the change, but it still has to find the
     * unchanged content.
     */
    private void flipInP7(Signer signer, Combination combination, byte[] der, byte[] content) throws Exception {
        if (combination.form().isDetached() && random.nextInt(4) == 0) {
            byte[] changed = flipped(content, random.nextInt(content.length * 8));
            assertRejected(opinions(signer, combination, der, changed), "changed content");
            count("the detached content of P7, rejected");
            return;
        }
        List<Part> parts = protectedParts(der);
        int bit = random.nextBoolean() ? bitOf(parts) : random.nextInt(der.length * 8);
        List<Verifiers.Opinion> opinions = opinions(signer, combination, flipped(der, bit), content);
        for (Part part : parts) {
            if (bit / 8 >= part.begin() && bit / 8 < part.begin() + part.length()) {
                assertRejected(opinions, part.name() + ", bit " + bit + " of " + hex(der));
                count("P7, " + part.name() + ", rejected");
                return;
            }
        }
        List<Verifiers.Opinion> accepting = opinions.stream().filter(o -> o.content().isPresent()).toList();
        for (Verifiers.Opinion opinion : accepting) {
            assertArrayEquals(content, opinion.content().get(), opinion.verifier() + ", other content");
        }
        count("P7, elsewhere, " + (accepting.isEmpty() ? "rejected" : "passed over, the content being unchanged, by "
            + accepting.stream().map(Verifiers.Opinion::verifier).toList()));
    }

    /** A range of bytes in a P7 signature. */
    private record Part(String name, int begin, int length) {}

    /** A random bit of one of the parts; each name is equally likely. */
    private int bitOf(List<Part> parts) {
        List<String> names = parts.stream().map(Part::name).distinct().toList();
        String name = names.get(random.nextInt(names.size()));
        int[] bytes = parts.stream().filter(part -> part.name().equals(name))
            .flatMapToInt(part -> IntStream.range(part.begin(), part.begin() + part.length())).toArray();
        return bytes[random.nextInt(bytes.length)] * 8 + random.nextInt(8);
    }

    /**
     * The parts that the signature protects: the content, the values of the signed attributes, and the signature value.
     * The tags and lengths around the values are not protected: openssl accepts a SET that is marked as primitive, and
     * verifies the correct encoding of the attributes.
     */
    private static List<Part> protectedParts(byte[] der) throws Exception {
        CMSSignedData signed = new CMSSignedData(der);
        SignerInformation signer = signed.getSignerInfos().getSigners().iterator().next();
        List<Part> parts = new ArrayList<>();
        if (signed.getSignedContent() != null) {
            byte[] content = (byte[]) signed.getSignedContent().getContent();
            Part contentField = part("", der, encodedContent(content));
            int end = contentField.begin() + contentField.length();
            parts.add(new Part("the attached content", end - content.length, content.length));
        }
        // The attributes have another tag in the encoding than in the signed form.
        byte[] attributes = signer.getEncodedSignedAttributes();
        Part field = part("", der, Arrays.copyOfRange(attributes, 1, attributes.length));
        addValues(der, field.begin() - 1, parts);
        parts.add(part("the signature value", der, signer.getSignature()));
        return parts;
    }

    /** Adds the value of the item at begin, or the values of the items in it. Returns the end of the item. */
    private static int addValues(byte[] der, int begin, List<Part> parts) {
        int length = der[begin + 1] & 0xff;
        int value = begin + 2;
        if (length >= 0x80) {
            int size = length & 0x7f;
            length = new BigInteger(1, Arrays.copyOfRange(der, value, value + size)).intValueExact();
            value += size;
        }
        int end = value + length;
        if ((der[begin] & 0x20) == 0) {
            parts.add(new Part("the values of the signed attributes", value, length));
        } else {
            for (int item = value; item < end;) {
                item = addValues(der, item, parts);
            }
        }
        return end;
    }

    /** The content with its type before it, which distinguishes short content from equal bytes elsewhere. */
    private static byte[] encodedContent(byte[] content) throws Exception {
        ByteArrayOutputStream encoded = new ByteArrayOutputStream();
        encoded.writeBytes(CMSObjectIdentifiers.data.getEncoded());
        encoded.writeBytes(new DERTaggedObject(true, 0, new DEROctetString(content)).getEncoded());
        return encoded.toByteArray();
    }

    /** The last occurrence of the bytes: the signer comes last in the encoding. */
    private static Part part(String name, byte[] der, byte[] bytes) {
        for (int begin = der.length - bytes.length; begin >= 0; --begin) {
            if (Arrays.equals(der, begin, begin + bytes.length, bytes, 0, bytes.length)) {
                return new Part(name, begin, bytes.length);
            }
        }
        throw new AssertionError(name + " is not in the encoding");
    }
}
