package vex.jni;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.RandomAccessFile;
import java.nio.ByteOrder;
import java.nio.MappedByteBuffer;
import java.nio.channels.FileChannel;
import java.nio.file.Files;
import java.nio.file.Path;
import java.security.cert.X509Certificate;
import java.time.Instant;
import java.util.ArrayList;
import java.util.Base64;
import java.util.Comparator;
import java.util.Date;
import java.util.List;
import java.util.Optional;
import java.util.SplittableRandom;
import org.bouncycastle.asn1.cms.Attribute;
import org.bouncycastle.asn1.cms.CMSAttributes;
import org.bouncycastle.asn1.cms.Time;
import org.bouncycastle.cms.CMSSignedData;
import org.bouncycastle.cms.SignerInformation;
import org.bouncycastle.cms.jcajce.JcaSimpleSignerInfoVerifierBuilder;

/**
 * A program whose wall clock jumps while it signs: the certificate of the moment signs, and Java finds the moment in the
 * signature. The preloaded library fake_clock has the clock; VEX_TEST_CLOCK_FILE names the file that sets it.
 */
final class ClockJumps {
    private static final TAVClientJNI NATIVES = new TAVClientJNI();

    private final MappedByteBuffer clock;
    private final List<TestStore.Identity> identities = new ArrayList<>();
    private final SplittableRandom random = new SplittableRandom(Amount.seedOfRun());

    private ClockJumps(MappedByteBuffer clock) {
        this.clock = clock;
        clock.order(ByteOrder.nativeOrder());
    }

    /** Ends with status 0 if all signatures were right. */
    public static void main(String[] args) throws Exception {
        try (FileChannel file = new RandomAccessFile(System.getenv("VEX_TEST_CLOCK_FILE"), "rw").getChannel()) {
            ClockJumps test = new ClockJumps(file.map(FileChannel.MapMode.READ_WRITE, 0, 16));
            Path store = Files.createTempFile("clock", ".pem");
            test.sign(test.writeStore(store), Amount.of("VEX_TEST_CLOCK_JUMPS", 100));
            Files.delete(store);
            test.move(0);
        }
    }

    /** The clock stands still at that moment. */
    private void set(long seconds) {
        clock.putLong(8, 1).putLong(0, seconds);
        assertEquals(seconds, System.currentTimeMillis() / 1000, "the clock is not the test's");
    }

    /** The clock goes, and is so many seconds fast. */
    private void move(long seconds) {
        clock.putLong(8, 0).putLong(0, seconds);
    }

    /** Periods with gaps and overlaps, around the ends of UTCTime and of 32 bits. */
    private String writeStore(Path file) throws Exception {
        String[][] periods = {
            {"1960-01-01T00:00:00Z", "1970-01-01T00:01:00Z"}, {"2020-01-01T00:00:00Z", "2038-01-19T03:14:07Z"},
            {"2038-01-19T03:14:08Z", "2049-12-31T23:59:59Z"}, {"2049-12-31T23:59:58Z", "2050-01-01T00:00:00Z"},
            {"2050-01-01T00:00:00Z", "2099-12-31T23:59:59Z"}, {"2105-01-01T00:00:00Z", "9999-12-31T23:59:59Z"}};
        for (String[] period : periods) {
            identities.add(TestStore.identity("secp256r1", "CN=" + period[0].substring(0, 10),
                Instant.parse(period[0]), Instant.parse(period[1])));
        }
        return TestStore.writePem(file, identities);
    }

    private long anyMoment() {
        X509Certificate certificate = identities.get(random.nextInt(identities.size())).certificate();
        return switch (random.nextInt(3)) {
            case 0 -> certificate.getNotBefore().getTime() / 1000 + random.nextInt(-1, 2);
            case 1 -> certificate.getNotAfter().getTime() / 1000 + random.nextInt(-1, 2);
            default -> random.nextLong(-315_000_000L, 5_000_000_000L);
        };
    }

    /** By the JDK: the certificate that is valid then, and longest. */
    private Optional<X509Certificate> signerAt(long seconds) {
        Date moment = new Date(seconds * 1000);
        return identities.stream().map(TestStore.Identity::certificate)
            .filter(certificate -> !moment.before(certificate.getNotBefore())
                && !moment.after(certificate.getNotAfter()))
            .max(Comparator.comparing(X509Certificate::getNotAfter));
    }

    private void sign(String store, long jumps) throws Exception {
        long handle = NATIVES.Initialize(null, store);
        long signed = 0;
        for (long i = 0; i < jumps; ++i) {
            long moment = anyMoment();
            Optional<X509Certificate> signer = signerAt(moment);
            set(moment);
            String signature = NATIVES.P7SignString(handle, "text", 0, 1);
            assertEquals(signer.isPresent(), signature != null, () -> "at " + Instant.ofEpochSecond(moment));
            if (signature != null) {
                check(Base64.getDecoder().decode(signature), signer.get(), moment);
                ++signed;
            }
        }
        assertEquals(0, NATIVES.Finalize(handle));
        assertTrue(signed > jumps / 3, "hardly any signature");
        System.out.printf("%,d jumps, %,d with a signature%n", jumps, signed);
    }

    private static void check(byte[] der, X509Certificate certificate, long moment) throws Exception {
        CMSSignedData signed = new CMSSignedData(der);
        SignerInformation signer = signed.getSignerInfos().getSigners().iterator().next();
        Attribute time = signer.getSignedAttributes().get(CMSAttributes.signingTime);
        Date claimed = Time.getInstance(time.getAttrValues().getObjectAt(0)).getDate();
        assertEquals(Instant.ofEpochSecond(moment), claimed.toInstant());
        certificate.checkValidity(claimed);
        assertTrue(signer.verify(new JcaSimpleSignerInfoVerifierBuilder().build(certificate)),
            () -> "not signed by " + certificate.getSubjectX500Principal());
    }
}
