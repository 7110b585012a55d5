package vex.jni;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.security.KeyPair;
import java.security.cert.X509Certificate;
import java.util.ArrayList;
import java.util.Base64;
import java.util.Collections;
import java.util.HashMap;
import java.util.HexFormat;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;
import java.util.Optional;
import java.util.Random;
import java.util.Set;
import java.util.TreeMap;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.concurrent.Future;
import java.util.stream.IntStream;
import org.junit.jupiter.api.Tag;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;
import vex.jni.ThirdPartySigner.Chain;
import vex.jni.ThirdPartySigner.Content;
import vex.jni.ThirdPartySigner.Flags;
import vex.jni.ThirdPartySigner.Form;
import vex.jni.ThirdPartySigner.Include;
import vex.jni.Verifier.Answer;
import vex.jni.Verifier.Knowledge;

/**
 * Verifies signatures of every kind with openssl, the JDK, Bouncy Castle, GnuTLS and vexsign, each of which trusts one
 * root: all accept them if the signature has the other certificates; all refuse them if it has not, until they are
 * given these certificates; and after a change of one bit none accepts them for other content. VEX_TEST_COMBINATIONS is
 * the number of signatures, VEX_TEST_FLIPS the number of changes to each.
 */
@Tag("third-parties")
class ThirdPartiesTest {
    private static final int COMBINATIONS = Amount.of("VEX_TEST_COMBINATIONS", 24);
    private static final int FLIPS = Amount.of("VEX_TEST_FLIPS", 1);
    private static final int MOST_INTERMEDIATES = 4;
    /** RSA keys take time to make, so the short run has few. */
    private static final boolean ALL_KEYS = COMBINATIONS >= 500;
    private static final Set<String> LONG_KEYS = Set.of("RSA-3072", "RSA-4096");
    private static final List<String> AUTHORITY_KEYS =
        List.of("secp384r1", "secp521r1", "Ed25519", "Ed448", "RSA-2048", "RSASSA-PSS");

    private record Combination(Scheme scheme, int intermediates, Flags flags) {}

    private final Map<String, Integer> counts = new TreeMap<>();
    private final Random random = new Random(Amount.seedOfRun());
    private final Map<String, KeyPair> keys = new HashMap<>();
    private final Map<String, ThirdPartySigner> signers = new HashMap<>();
    private final ExecutorService programs = Executors.newFixedThreadPool(2);
    private List<Verifier> verifiers;
    private X509Certificate stranger;
    private int signatures;

    @TempDir
    private Path directory;

    @Test
    void acceptsEachSignatureWithTheRootAloneAndNoChangedOne() throws Exception {
        List<Scheme> schemes =
            Scheme.all().stream().filter(scheme -> ALL_KEYS || !LONG_KEYS.contains(scheme.key())).toList();
        List<Scheme> next = new ArrayList<>();
        // It has the name of all the other roots.
        stranger = TestStore.chain("secp256r1", 2).get(1).certificate();
        try (GnuTlsVerifier gnuTls = new GnuTlsVerifier(System.getProperty("vex.test.gnutls-verifier"))) {
            verifiers = List.of(
                new OpenSslVerifier(Files.createDirectory(directory.resolve("openssl"))),
                new JdkVerifier(), new BouncyCastleVerifier(), gnuTls,
                new VexsignVerifier(System.getProperty("vex.test.vexsign"),
                    Files.createDirectory(directory.resolve("vexsign"))));
            for (int i = 0; signatures < COMBINATIONS; ++i) {
                if (next.isEmpty()) {
                    next.addAll(schemes);
                    Collections.shuffle(next, random);
                }
                Combination combination = combination(next.remove(next.size() - 1));
                try {
                    check(combination);
                } catch (Exception | AssertionError e) {
                    throw new AssertionError(combination + ", number " + i + ", seed " + Amount.seedOfRun(), e);
                }
            }
        }
        signers.values().forEach(ThirdPartySigner::close);
        programs.shutdown();
        System.err.printf("%d signatures with %d chains%n", signatures, signers.size());
        counts.forEach((what, count) -> System.err.printf("%s: %d%n", what, count));
    }

    private Combination combination(Scheme scheme) {
        boolean withClient = random.nextInt(4) == 0;
        Form form = any(Form.values());
        Flags flags = new Flags(form, any(Include.values()), any(Chain.values()), withClient);
        return new Combination(scheme, random.nextInt(MOST_INTERMEDIATES + 1), flags);
    }

    private <T> T any(T[] values) {
        return values[random.nextInt(values.length)];
    }

    private void count(String what) {
        counts.merge(what, 1, Integer::sum);
    }

    private ThirdPartySigner signer(Combination combination) throws Exception {
        String name = combination.scheme().key() + "-" + combination.intermediates();
        ThirdPartySigner signer = signers.get(name);
        if (signer == null) {
            List<KeyPair> pairs = new ArrayList<>();
            for (int level = 0; level < combination.intermediates() + 2; ++level) {
                pairs.add(key(level, level == 0 ? combination.scheme().key() : authorityKey()));
            }
            signer = new ThirdPartySigner(pairs, Files.createDirectory(directory.resolve(name)), random);
            signers.put(name, signer);
            checkPath(signer);
        }
        return signer;
    }

    private String authorityKey() {
        if (random.nextInt(3) > 0) {
            return "secp256r1";
        }
        return AUTHORITY_KEYS.get(random.nextInt(ALL_KEYS ? AUTHORITY_KEYS.size() : AUTHORITY_KEYS.size() - 2));
    }

    /** A key serves several chains, always at the same level. */
    private KeyPair key(int level, String key) throws Exception {
        String name = level + "-" + key;
        if (!keys.containsKey(name)) {
            keys.put(name, TestStore.keyPair(key));
        }
        return keys.get(name);
    }

    /** What a verifier of a P1 does first: the path of the certificate. */
    private void checkPath(ThirdPartySigner signer) throws Exception {
        for (Verifier verifier : verifiers.subList(0, verifiers.size() - 1)) {
            Answer answer = verifier.onPath(new Knowledge(signer.root(), signer.withoutRoot()));
            assertTrue(answer.isAccepted(), () -> verifier.name() + " refuses the path: " + answer.reason());
            assertFalse(verifier.onPath(new Knowledge(stranger, signer.withoutRoot())).isAccepted(), verifier::name);
            if (signer.withoutRoot().size() > 1) {
                List<X509Certificate> gap = new ArrayList<>(signer.withoutRoot());
                gap.remove(1 + random.nextInt(gap.size() - 1));
                assertFalse(verifier.onPath(new Knowledge(signer.root(), gap)).isAccepted(), verifier::name);
            }
        }
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

    private void check(Combination combination) throws Exception {
        ThirdPartySigner signer = signer(combination);
        Scheme scheme = combination.scheme();
        Flags flags = combination.flags();
        Content content = content();
        Optional<byte[]> signature = signer.sign(scheme, flags, content);
        if (signature.isEmpty()) {
            count("signatures refused, " + expectedRefusal(combination, content, signer.refusal()));
            return;
        }
        assertTrue(content.bytes().length > 0, "empty content");
        ++signatures;
        byte[] der = signature.get();
        if (flags.form() == Form.P1) {
            Knowledge knowledge = new Knowledge(signer.root(), signer.withoutRoot());
            assertAccepted(combination, answers(combination, knowledge, der, content.bytes()), content.bytes());
            for (int i = 0; i < FLIPS; ++i) {
                flipInP1(combination, knowledge, der, content.bytes());
            }
            return;
        }
        Set<X509Certificate> promised = signer.promised(flags);
        Signatures.assertP7Form(Base64.getEncoder().encodeToString(der), content.bytes(),
            flags.form() == Form.P7_DETACHED, signer.certificate(), promised,
            scheme.p7DigestOid());
        checkTrust(combination, signer, promised.containsAll(signer.withoutRoot()), der, content.bytes());
    }

    /** @param complete whether the signature has what somebody needs who knows only the root */
    private void checkTrust(Combination combination, ThirdPartySigner signer, boolean complete, byte[] der,
                            byte[] content) throws Exception {
        Knowledge rootAlone = new Knowledge(signer.root(), List.of());
        Knowledge knowledge = complete ? rootAlone : new Knowledge(signer.root(), signer.withoutRoot());
        if (!complete) {
            assertRefused(answers(combination, rootAlone, der, content), "a signature without the certificates");
            count("P7 refused with the root alone, because certificates are left out");
        }
        assertAccepted(combination, answers(combination, knowledge, der, content), content);
        count(complete ? "P7 accepted with the root alone" : "P7 accepted with the certificates given");
        if (random.nextInt(4) == 0) {
            Knowledge other = new Knowledge(stranger, knowledge.given());
            assertRefused(answers(combination, other, der, content), "a signature below another root");
            count("P7 refused below another root of the same name");
        }
        boolean hasSigner = complete || combination.flags().include() != Include.NONE;
        Form form = combination.flags().form();
        if (hasSigner && !combination.scheme().pss() && !combination.scheme().isEdwards()) {
            assertTrue(JdkVerifier.isGoodForJars(der, form == Form.P7_DETACHED ? content : null), "as of a jar");
            count("P7 accepted by the JDK's reader of signed jars");
        }
        for (int i = 0; i < FLIPS; ++i) {
            flipInP7(combination, knowledge, der, content);
        }
    }

    /** What the toolkit refuses by its rules; anything else fails the test. */
    private static String expectedRefusal(Combination combination, Content content, ThirdPartySigner.Refusal refusal) {
        Scheme scheme = combination.scheme();
        if (content.bytes().length == 0) {
            // The natives do not pass an empty text to the toolkit.
            assertTrue(refusal.number() == VCTKError.DATA_EMPTY || !combination.flags().withClient(), refusal::message);
            return "empty content";
        }
        assertTrue(combination.flags().form() != Form.P1, refusal::message);
        assertEquals(VCTKError.SIGN_FAILED, refusal.number(), refusal::message);
        if (scheme.isEdwards()) {
            return "P7 with " + scheme.key();
        }
        // CMS, or at least OpenSSL 3.0, has no name for ECDSA with this digest.
        assertTrue(!scheme.isRsa() && scheme.digest().name().matches("SHA3-.*|SHA-512/.*"), refusal::message);
        return "P7 for ECDSA with a digest CMS has no name for";
    }

    private Map<Verifier, Answer> answers(Combination combination, Knowledge knowledge, byte[] signature,
                                          byte[] content) throws Exception {
        Form form = combination.flags().form();
        Map<Verifier, Future<Answer>> futures = new LinkedHashMap<>();
        for (Verifier verifier : verifiers) {
            byte[] beside = form == Form.P7_ATTACHED ? null : content;
            futures.put(verifier, programs.submit(() -> form == Form.P1
                ? verifier.onP1(signature, content, combination.scheme(), knowledge)
                : verifier.onP7(signature, beside, combination.scheme(), knowledge)));
        }
        Map<Verifier, Answer> answers = new LinkedHashMap<>();
        for (Map.Entry<Verifier, Future<Answer>> future : futures.entrySet()) {
            answers.put(future.getKey(), future.getValue().get());
        }
        return answers;
    }

    private void assertAccepted(Combination combination, Map<Verifier, Answer> answers, byte[] content) {
        answers.forEach((verifier, answer) -> {
            Optional<VerifierGap> gap =
                VerifierGap.find(verifier, combination.scheme(), combination.flags().form());
            if (gap.isPresent()) {
                assertFalse(answer.isAccepted(), () -> verifier.name() + " accepts, although it should not know "
                    + gap.get().what());
                assertTrue(gap.get().reason().matcher(answer.reason()).find(), answer::reason);
                count("not known by " + verifier.name() + ", " + gap.get().what());
                return;
            }
            assertTrue(answer.isAccepted(), () -> verifier.name() + " refuses: " + answer.reason());
            assertArrayEquals(content, answer.content().orElseThrow(), verifier::name);
            count("accepted by " + verifier.name());
        });
    }

    /** @param what for the report */
    private static void assertRefused(Map<Verifier, Answer> answers, String what) {
        answers.forEach((verifier, answer) ->
            assertFalse(answer.isAccepted(), () -> verifier.name() + " accepts " + what));
    }

    private byte[] flipped(byte[] bytes, int bit) {
        byte[] changed = bytes.clone();
        changed[bit / 8] ^= (byte) (1 << bit % 8);
        return changed;
    }

    private static String hex(byte[] bytes) {
        return HexFormat.of().formatHex(bytes);
    }

    private void flipInP1(Combination combination, Knowledge knowledge, byte[] signature, byte[] content)
            throws Exception {
        if (random.nextBoolean()) {
            byte[] changed = flipped(content, random.nextInt(content.length * 8));
            assertRefused(answers(combination, knowledge, signature, changed), "changed content");
            count("one bit changed in the content of P1, refused");
        } else {
            int bit = random.nextInt(signature.length * 8);
            Map<Verifier, Answer> answers = answers(combination, knowledge, flipped(signature, bit), content);
            if (combination.scheme().key().equals("Ed448") && bit / 8 == signature.length - 1) {
                // The byte is always 0. GnuTLS does not look at it.
                answers.keySet().removeIf(verifier -> verifier.name().equals("GnuTLS"));
                count("one bit changed in the last byte of an Ed448 signature, which GnuTLS does not look at");
            }
            assertRefused(answers, "bit " + bit + " of " + hex(signature));
            count("one bit changed in a P1 signature, refused");
        }
    }

    /**
     * Half of the changes are in bits that the signature protects. The others are anywhere: also in bits that describe
     * the structure, or that nothing protects. There a verifier may ignore the change, but it still has to find the
     * unchanged content.
     */
    private void flipInP7(Combination combination, Knowledge knowledge, byte[] der, byte[] content) throws Exception {
        if (combination.flags().form() == Form.P7_DETACHED && random.nextInt(4) == 0) {
            byte[] changed = flipped(content, random.nextInt(content.length * 8));
            assertRefused(answers(combination, knowledge, der, changed), "changed content");
            count("one bit changed in the detached content of P7, refused");
            return;
        }
        List<ProtectedPart> parts = ProtectedPart.of(der);
        int bit = random.nextBoolean() ? bitOf(parts) : random.nextInt(der.length * 8);
        Map<Verifier, Answer> answers = answers(combination, knowledge, flipped(der, bit), content);
        for (ProtectedPart part : parts) {
            if (part.contains(bit)) {
                assertRefused(answers, part.name() + ", bit " + bit + " of " + hex(der));
                count("one bit changed in P7, " + part.name() + ", refused");
                return;
            }
        }
        List<String> accepting = new ArrayList<>();
        answers.forEach((verifier, answer) -> answer.content().ifPresent(found -> {
            assertArrayEquals(content, found, verifier.name() + ", other content");
            accepting.add(verifier.name());
        }));
        count("one bit changed in P7, elsewhere, "
            + (accepting.isEmpty() ? "refused" : "passed over, the content being unchanged"));
    }

    /** A random bit of one of the parts; each name is equally likely. */
    private int bitOf(List<ProtectedPart> parts) {
        List<String> names = parts.stream().map(ProtectedPart::name).distinct().toList();
        String name = names.get(random.nextInt(names.size()));
        int[] bytes = parts.stream().filter(part -> part.name().equals(name))
            .flatMapToInt(part -> IntStream.range(part.begin(), part.begin() + part.length())).toArray();
        return bytes[random.nextInt(bytes.length)] * 8 + random.nextInt(8);
    }
}
