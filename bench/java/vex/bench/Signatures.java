package vex.bench;

import java.io.IOException;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.security.KeyStore;
import java.security.PrivateKey;
import java.security.Provider;
import java.security.Security;
import java.security.Signature;
import java.security.spec.MGF1ParameterSpec;
import java.security.spec.PSSParameterSpec;
import java.util.Base64;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;
import java.util.concurrent.CyclicBarrier;
import java.util.concurrent.atomic.AtomicInteger;
import org.bouncycastle.cert.jcajce.JcaX509CertificateHolder;
import org.bouncycastle.cms.CMSProcessableByteArray;
import org.bouncycastle.cms.CMSSignedDataGenerator;
import org.bouncycastle.cms.jcajce.JcaSignerInfoGeneratorBuilder;
import org.bouncycastle.operator.ContentSigner;
import org.bouncycastle.operator.jcajce.JcaContentSignerBuilder;
import org.bouncycastle.operator.jcajce.JcaDigestCalculatorProviderBuilder;
import vex.client.SigningClient;
import vex.client.SigningProvider;
import vex.client.StoreParameter;
import vex.jni.TAVClientJNI;
import vex.jni.TestStore;

/** How many signatures per second Java gets: text in, Base64 text out, as with the natives. */
final class Signatures {
    private interface Signer {
        String sign(String text) throws Exception;
    }

    private static final String HAND = "hand-written native";
    private static final String STRAIGHT = "native without the contract";
    private static final String KILOBYTE = "x".repeat(1 << 10);
    private static final String TOKEN_PIN = "1234";

    private final TAVClientJNI client = new TAVClientJNI();
    private final Path directory;
    private final int millis;
    private final int warmUp;
    private final int rounds;
    private final String java = ", Java " + Runtime.version().feature();

    private String sink;

    private Signatures(Measuring measuring) {
        directory = Path.of(measuring.text("logs"));
        millis = measuring.amount("milliseconds", 60);
        warmUp = measuring.amount("warmup", 4);
        rounds = measuring.amount("rounds", 15);
    }

    public static void main(String[] arguments) throws Exception {
        Measuring measuring = new Measuring("How many signatures a second does Java get?", arguments);
        System.load(measuring.text("library"));
        new Signatures(measuring).run();
        System.out.flush();
        Runtime.getRuntime().halt(0);
    }

    private void run() throws Exception {
        HandWrittenSigner.startLog(directory.resolve("hand.log").toString());
        TestStore.Identity rsa = TestStore.identity("RSA", "CN=rsa", 1, 30, 0);
        TestStore.Identity ec = TestStore.identity("secp256r1", "CN=ec", 2, 30, 0);
        Path rsaFile = directory.resolve("rsa.pem");
        Path ecFile = directory.resolve("ec.pem");
        long product = open(TestStore.writePem(rsaFile, List.of(rsa)));
        long productEc = open(TestStore.writePem(ecFile, List.of(ec)));
        long hand = HandWrittenSigner.open(rsaFile.toString());
        long handEc = HandWrittenSigner.open(ecFile.toString());

        String megabyte = "x".repeat(1 << 20);

        Map<String, Signer> p1 = new LinkedHashMap<>();
        p1.put("product", text -> client.P1SignString(product, text));
        p1.put(HAND, text -> HandWrittenSigner.contractP1(hand, text));
        p1.put(STRAIGHT, text -> HandWrittenSigner.straightP1(hand, text));
        p1.put("SunRsaSign", jdk("SHA256withRSA", "SunRsaSign", rsa.key()));
        Signer softHsm = softHsm(rsa);
        if (softHsm != null) {
            p1.put("SoftHSM2 through the JDK", softHsm);
        }
        compare("RSA-2048 P1 of 1 KiB", KILOBYTE, p1);

        Map<String, Signer> p7 = new LinkedHashMap<>();
        p7.put("product", text -> client.P7SignString(product, text, 1, 1));
        p7.put(HAND, text -> HandWrittenSigner.contractP7(hand, text));
        p7.put(STRAIGHT, text -> HandWrittenSigner.straightP7(hand, text));
        p7.put("BouncyCastle CMS", bouncyCastle(rsa));
        compare("RSA-2048 P7 of 1 KiB", KILOBYTE, p7);

        Map<String, Signer> p256 = new LinkedHashMap<>();
        p256.put("product", text -> client.P1SignString(productEc, text));
        p256.put(HAND, text -> HandWrittenSigner.contractP1(handEc, text));
        p256.put(STRAIGHT, text -> HandWrittenSigner.straightP1(handEc, text));
        p256.put("SunEC", jdk("SHA256withECDSA", "SunEC", ec.key()));
        compare("P-256 P1 of 1 KiB", KILOBYTE, p256);

        long productPss = open("file:" + rsaFile, "SHA-256/PSS");
        Map<String, Signer> pss = new LinkedHashMap<>();
        pss.put("product", text -> client.P1SignString(productPss, text));
        pss.put(HAND, text -> HandWrittenSigner.contractPss(hand, text));
        Signature sun = Signature.getInstance("RSASSA-PSS", "SunRsaSign");
        sun.setParameter(new PSSParameterSpec("SHA-256", "MGF1", MGF1ParameterSpec.SHA256, 32, 1));
        pss.put("SunRsaSign", jdk(sun, rsa.key()));
        compare("RSA-2048-PSS P1 of 1 KiB", KILOBYTE, pss);

        long productDigest = open("file:" + rsaFile, "prehashed:SHA-256");
        Map<String, Signer> digest = new LinkedHashMap<>();
        digest.put("product", text -> client.P1Sign(productDigest, text));
        digest.put(HAND, text -> HandWrittenSigner.contractDigest(hand, text));
        compare("RSA-2048 P1 of a digest", Base64.getEncoder().encodeToString(new byte[32]), digest);

        p1.keySet().retainAll(List.of("product", HAND, STRAIGHT));
        p7.keySet().retainAll(List.of("product", HAND, STRAIGHT));
        compare("RSA-2048 P1 of 1 MiB", megabyte, p1);
        compare("RSA-2048 P7 of 1 MiB", megabyte, p7);

        Map<String, Signer> jca = new LinkedHashMap<>();
        byte[] bytes = megabyte.getBytes(StandardCharsets.UTF_8);
        jca.put("product through the JCA", jca(SigningProvider.NAME, keyOf(StoreParameter.file(rsaFile)), bytes));
        jca.put("SunRsaSign", jca("SunRsaSign", rsa.key(), bytes));
        compare("RSA-2048 through the JCA of 1 MiB", megabyte, jca);

        long other = open("file:" + rsaFile);
        twoThreads("", text -> client.P1SignString(product, text), text -> client.P1SignString(other, text));
        try (SigningClient shared = SigningClient.file(rsaFile).open()) {
            Signer signer = text -> Base64.getEncoder().encodeToString(shared.signRaw(text));
            twoThreads(", one client", signer, signer);
        }
        twoThreads(", one KeyStore", keyOf(StoreParameter.file(rsaFile)));
        if (softHsm != null) {
            twoThreads(", one KeyStore of a token", keyOf(StoreParameter.store("pkcs11:token=bench?module-path="
                + System.getenv("SOFTHSM2_MODULE") + "&pin-value=" + TOKEN_PIN, null)));
        }
    }

    private void twoThreads(String of, PrivateKey key) throws Exception {
        byte[] bytes = KILOBYTE.getBytes(StandardCharsets.US_ASCII);
        twoThreads(of, jca(SigningProvider.NAME, key, bytes), jca(SigningProvider.NAME, key, bytes));
    }

    private void twoThreads(String of, Signer first, Signer second) throws Exception {
        Measuring.interleave("RSA-2048 P1 of 1 KiB, two threads" + of + java, "signatures/s", warmUp, rounds, Map.of(
            "product", () -> threads(KILOBYTE, first, second),
            "product, one thread", () -> threads(KILOBYTE, first)));
    }

    private long open(String initialisation) throws IOException {
        long handle = client.Initialize(null, initialisation);
        if (handle == 0) {
            throw new IOException("not opened: " + initialisation + ": " + client.GetLastErrorMessage(0));
        }
        return handle;
    }

    private long open(String initialisation, String digest) throws IOException {
        long handle = open(initialisation);
        if (client.SetDigestAlg(handle, digest) != 0) {
            throw new IOException("not set: " + digest + ": " + client.GetLastErrorMessage(handle));
        }
        return handle;
    }

    private static Signer jdk(String algorithm, String provider, PrivateKey key) throws Exception {
        return jdk(Signature.getInstance(algorithm, provider), key);
    }

    private static Signer jdk(Signature signature, PrivateKey key) throws Exception {
        signature.initSign(key);
        return text -> {
            signature.update(text.getBytes(StandardCharsets.UTF_8));
            return Base64.getEncoder().encodeToString(signature.sign());
        };
    }

    private static PrivateKey keyOf(StoreParameter store) throws Exception {
        Security.addProvider(new SigningProvider());
        KeyStore keys = KeyStore.getInstance(SigningProvider.KEY_STORE_TYPE);
        keys.load(store);
        return (PrivateKey) keys.getKey(keys.aliases().nextElement(), null);
    }

    /** Signs bytes, not the text: programs that use the JCA have bytes. */
    private static Signer jca(String provider, PrivateKey key, byte[] bytes) throws Exception {
        Signature signature = Signature.getInstance("SHA256withRSA", provider);
        signature.initSign(key);
        return text -> {
            signature.update(bytes);
            return Base64.getEncoder().encodeToString(signature.sign());
        };
    }

    private static Signer bouncyCastle(TestStore.Identity identity) throws Exception {
        ContentSigner content = new JcaContentSignerBuilder("SHA256withRSA").build(identity.key());
        JcaX509CertificateHolder certificate = new JcaX509CertificateHolder(identity.certificate());
        CMSSignedDataGenerator generator = new CMSSignedDataGenerator();
        generator.addSignerInfoGenerator(
            new JcaSignerInfoGeneratorBuilder(new JcaDigestCalculatorProviderBuilder().build())
                .build(content, certificate));
        generator.addCertificate(certificate);
        return text -> Base64.getEncoder().encodeToString(
            generator.generate(new CMSProcessableByteArray(text.getBytes(StandardCharsets.UTF_8)), false).getEncoded());
    }

    /** Uses SOFTHSM2_MODULE and SOFTHSM2_CONF, with a token in slot 0 and PIN 1234. Null if there is no module. */
    private Signer softHsm(TestStore.Identity identity) throws Exception {
        String module = System.getenv("SOFTHSM2_MODULE");
        if (module == null) {
            return null;
        }
        Path configuration = directory.resolve("pkcs11.cfg");
        Files.writeString(configuration, "name=SoftHSM\nlibrary=" + module + "\nslotListIndex=0\n");
        Provider provider = Security.getProvider("SunPKCS11").configure(configuration.toString());
        Security.addProvider(provider);
        KeyStore store = KeyStore.getInstance("PKCS11", provider);
        store.load(null, TOKEN_PIN.toCharArray());
        store.setKeyEntry("bench", identity.key(), null,
            new java.security.cert.Certificate[] {identity.certificate()});
        return jdk("SHA256withRSA", provider.getName(), (PrivateKey) store.getKey("bench", null));
    }

    /** Signs a number of texts over and over for some time. */
    private double perCpuSecond(Signer signer, String text) throws Exception {
        int signatures = 0;
        double begin = Measuring.cpuSeconds();
        double end = begin;
        for (; end < begin + millis * 1e-3; end = Measuring.cpuSeconds()) {
            sink = signer.sign(text);
            if (sink == null) {
                throw new IllegalStateException("no signature");
            }
            ++signatures;
        }
        Measuring.waitForWriter(directory.resolve("PILog.txt"));
        Measuring.waitForWriter(directory.resolve("hand.log"));
        return signatures / (end - begin);
    }

    private void compare(String row, String text, Map<String, Signer> signers) throws Exception {
        Map<String, Measuring.Candidate> candidates = new LinkedHashMap<>();
        signers.forEach((name, signer) -> candidates.put(name, () -> perCpuSecond(signer, text)));
        Measuring.interleave(row + java, "signatures/s", warmUp, rounds, candidates);
    }

    /**
     * Signs a number of texts with one thread per signer. Each thread takes the next text when it is done. So all
     * threads stay busy to the end, even if the log's writer slows some down. Returns the signatures of all per second.
     */
    private double threads(String text, Signer... signers) throws Exception {
        CyclicBarrier together = new CyclicBarrier(signers.length + 1);
        int texts = 20 * millis;
        AtomicInteger next = new AtomicInteger();
        AtomicInteger signed = new AtomicInteger();
        Thread[] threads = new Thread[signers.length];
        for (int i = 0; i < threads.length; ++i) {
            Signer signer = signers[i];
            threads[i] = new Thread(() -> {
                try {
                    together.await();
                    while (next.getAndIncrement() < texts) {
                        if (signer.sign(text) != null) {
                            signed.incrementAndGet();
                        }
                    }
                } catch (Exception e) {
                    throw new IllegalStateException(e);
                }
            });
            threads[i].start();
        }
        together.await();
        long begin = System.nanoTime();
        for (Thread thread : threads) {
            thread.join();
        }
        double seconds = (System.nanoTime() - begin) * 1e-9;
        Measuring.waitForWriter(directory.resolve("PILog.txt"));
        if (signed.get() != texts) {
            throw new IllegalStateException("no signature");
        }
        return texts / seconds;
    }
}
