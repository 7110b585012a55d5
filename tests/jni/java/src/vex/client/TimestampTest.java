package vex.client;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.ByteArrayInputStream;
import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.StandardOpenOption;
import java.security.KeyStore;
import java.security.PrivateKey;
import java.security.Signature;
import java.security.SignatureException;
import java.security.cert.X509Certificate;
import java.util.Base64;
import java.util.List;
import java.util.Map;
import java.util.Random;
import java.util.concurrent.CyclicBarrier;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.atomic.AtomicReference;
import java.util.stream.Stream;
import org.bouncycastle.asn1.ASN1Encoding;
import org.bouncycastle.asn1.DEROctetString;
import org.bouncycastle.asn1.DERSet;
import org.bouncycastle.asn1.cms.Attribute;
import org.bouncycastle.asn1.cms.AttributeTable;
import org.bouncycastle.asn1.pkcs.PKCSObjectIdentifiers;
import org.bouncycastle.cms.CMSProcessableByteArray;
import org.bouncycastle.cms.CMSSignedData;
import org.bouncycastle.cms.CMSSignedDataGenerator;
import org.bouncycastle.cms.SignerInformation;
import org.bouncycastle.cms.SimpleAttributeTableGenerator;
import org.bouncycastle.cms.jcajce.JcaSimpleSignerInfoGeneratorBuilder;
import org.bouncycastle.cms.jcajce.JcaSimpleSignerInfoVerifierBuilder;
import org.junit.jupiter.api.Tag;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.function.Executable;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.Arguments;
import org.junit.jupiter.params.provider.EnumSource;
import org.junit.jupiter.params.provider.MethodSource;
import org.junit.jupiter.params.provider.ValueSource;
import vex.client.SigningException.Reason;
import vex.jni.Garbage;
import vex.jni.Signatures;
import vex.jni.TAVClientJNI;
import vex.jni.Together;
import vex.jni.VCTKError;

/** CMS signatures with time stamps from a source. */
@Tag("client")
class TimestampTest extends TimestampFixture {
    /** Nobody listens. No test needs to get so far. */
    private static final String DEAD_AUTHORITY = "tsa=http%3A//127.0.0.1%3A1/";

    /** Something that signs. */
    private interface Call {
        byte[] sign(SigningClient client, Path content) throws Exception;
    }

    private static void requireSignature(byte[] cms, byte[] content, boolean detached, X509Certificate certificate)
            throws Exception {
        Signatures.assertP7(Base64.getEncoder().encodeToString(cms), content, detached,
            !Signatures.certificatesIn(cms).isEmpty(), certificate, new CMSSignedData(cms).getSignerInfos().iterator()
                .next().getDigestAlgOID());
    }

    private static boolean hasStamp(byte[] cms) throws Exception {
        return new CMSSignedData(cms).getSignerInfos().iterator().next().getUnsignedAttributes() != null;
    }

    // ---- What is stamped ----

    private static Arguments call(String name, boolean detached, Call call) {
        return Arguments.of(name, detached, call);
    }

    static Stream<Arguments> calls() {
        return Stream.of(
            call("text, detached", true, (client, file) -> client.signCmsDetached(TEXT)),
            call("text, attached", false, (client, file) -> client.signCmsAttached(TEXT)),
            call("data, detached", true, (client, file) -> client.signCmsDetached(TEXT_BYTES)),
            call("data, attached", false, (client, file) -> client.signCmsAttached(TEXT_BYTES)),
            call("no certificate", false,
                (client, file) -> client.signCmsAttached(TEXT_BYTES, CmsOption.OMIT_CERTIFICATE)),
            call("chain", true, (client, file) -> client.signCmsDetached(TEXT_BYTES, CmsOption.INCLUDE_CHAIN)),
            call("file, detached", true, (client, file) -> client.signCmsDetached(file)),
            call("file, attached", false, (client, file) -> client.signCmsAttached(file)),
            call("stream", true,
                (client, file) -> client.signCmsDetached(new ByteArrayInputStream(Files.readAllBytes(file)))),
            call("request, detached", true,
                (client, file) -> client.sign(SigningRequest.cmsDetached(file)).signature()),
            call("request, attached", false,
                (client, file) -> client.sign(SigningRequest.cmsAttached(TEXT)).signature()));
    }

    @ParameterizedTest(name = "{0}")
    @MethodSource("calls")
    void everyCmsSignatureIsStamped(String name, boolean detached, Call call) throws Exception {
        Path content = Files.write(directory.resolve("content"), TEXT_BYTES);
        int before = authority.requests();
        try (SigningClient client = open(authority)) {
            byte[] cms = call.sign(client, content);
            requireSignature(cms, TEXT_BYTES, detached, identity.certificate());
            authority.requireStamp(cms);
            assertEquals(before + 1, authority.requests());
        }
        try (SigningClient client = SigningClient.file(store).open()) {
            assertFalse(hasStamp(call.sign(client, content)), "without a source");
            assertEquals(before + 1, authority.requests());
        }
    }

    @ParameterizedTest
    @EnumSource(names = {"RSA", "PSS", "EC", "P521"})
    void signaturesOfEachKindOfKeyAreStamped(OpenSslKeys key) throws Exception {
        Path pem = directory.resolve(key + ".pem");
        X509Certificate certificate = key.write(pem);
        try (SigningClient stamping = SigningClient.file(pem).timestamp(authority).open();
                SigningClient plain = SigningClient.file(pem).open()) {
            SigningResult result = stamping.sign(SigningRequest.cmsAttached(TEXT_BYTES));
            authority.requireStamp(result.signature());
            requireSignature(result.signature(), TEXT_BYTES, false, certificate);
            assertEquals(plain.sign(SigningRequest.cmsAttached(TEXT_BYTES)).algorithm(), result.algorithm());
            assertEquals(certificate, result.certificate());
        }
    }

    /** Only newer versions of OpenSSL make CMS signatures with such keys. */
    @Test
    void anEdwardsKeyIsStampedIfItSigns() throws Exception {
        Path pem = directory.resolve("ed25519.pem");
        X509Certificate certificate = OpenSslKeys.ED25519.write(pem);
        int before = authority.requests();
        try (SigningClient stamping = SigningClient.file(pem).timestamp(authority).open();
                SigningClient plain = SigningClient.file(pem).open()) {
            try {
                plain.signCmsDetached(TEXT_BYTES);
            } catch (SigningException refusal) {
                assertEquals(refusal.getMessage(), assertThrows(SigningException.class,
                    () -> stamping.signCmsDetached(TEXT_BYTES)).getMessage());
                assertEquals(before, authority.requests());
                return;
            }
            byte[] cms = stamping.signCmsDetached(TEXT_BYTES);
            authority.requireStamp(cms);
            requireSignature(cms, TEXT_BYTES, true, certificate);
        }
    }

    /** The lengths of the elements around the content have one byte, two, three and four. */
    @ParameterizedTest
    @ValueSource(ints = {1, 127, 128, 65535, 65536, 300000})
    void contentsOfAnyLengthAreAddedToAStampedSignature(int length) throws Exception {
        byte[] content = new byte[length];
        new Random(length).nextBytes(content);
        Path file = Files.write(directory.resolve("content"), content);
        try (SigningClient client = open(authority)) {
            for (byte[] cms : List.of(client.signCmsAttached(content), client.signCmsAttached(file))) {
                requireSignature(cms, content, false, identity.certificate());
                authority.requireStamp(cms);
            }
        }
    }

    /** Without the toolkit: the signature is Bouncy Castle's. */
    @ParameterizedTest
    @ValueSource(ints = {1, 127, 128, 70000})
    void anAttachedFormKeepsUnsignedAttributes(int length) throws Exception {
        Attribute attribute = new Attribute(PKCSObjectIdentifiers.id_aa_signatureTimeStampToken,
            new DERSet(new DEROctetString(new byte[300])));
        CMSSignedDataGenerator generator = new CMSSignedDataGenerator();
        generator.addSignerInfoGenerator(new JcaSimpleSignerInfoGeneratorBuilder()
            .setUnsignedAttributeGenerator(new SimpleAttributeTableGenerator(new AttributeTable(attribute)))
            .build("SHA256withECDSA", identity.key(), identity.certificate()));
        byte[] content = new byte[length];
        byte[] detached = generator.generate(new CMSProcessableByteArray(content), false).getEncoded(ASN1Encoding.DER);

        byte[] attached = new AttachedCms(detached, length).der();
        SignerInformation signer = new CMSSignedData(attached).getSignerInfos().iterator().next();
        assertTrue(signer.verify(new JcaSimpleSignerInfoVerifierBuilder().build(identity.certificate())));
        assertEquals(attribute,
            signer.getUnsignedAttributes().get(PKCSObjectIdentifiers.id_aa_signatureTimeStampToken));
        assertArrayEquals(content, (byte[]) new CMSSignedData(attached).getSignedContent().getContent());
    }

    @Test
    void theSignerAndTheListNeedNoStamps() throws Exception {
        int before = authority.requests();
        try (SigningClient client = open(authority)) {
            assertEquals(identity.certificate(), client.signer());
            assertEquals(1, client.certificates().size());
        }
        assertEquals(before, authority.requests());
    }

    // ---- What is not signed ----

    private static void assertNoPlace(Executable call) {
        SigningException e = assertThrows(SigningException.class, call);
        assertEquals(Reason.TIMESTAMP, e.reason());
        assertEquals(VCTKError.TIMESTAMP, e.number());
        assertTrue(e.getMessage().contains("a bare signature has no place for a time stamp"), e.getMessage());
    }

    @Test
    void bareSignaturesAreRefused() throws Exception {
        int before = authority.requests();
        SigningClient client = open(authority);
        try (client) {
            assertNoPlace(() -> client.signRaw(TEXT));
            assertNoPlace(() -> client.signRaw(TEXT_BYTES));
            assertNoPlace(() -> client.signDigest(new byte[32]));
            assertNoPlace(() -> client.sign(SigningRequest.raw(TEXT)));
            assertNoPlace(() -> client.sign(SigningRequest.raw(TEXT_BYTES)));
            assertNoPlace(() -> client.sign(SigningRequest.digest(new byte[32])));
        }
        assertEquals(before, authority.requests());
        assertThrows(IllegalStateException.class, () -> client.signRaw(TEXT));
        assertThrows(IllegalStateException.class, () -> client.signCmsDetached(TEXT));
    }

    @Test
    void settingsThatContradictEachOtherAreRefused() {
        String uri = "file:" + store + "?" + DEAD_AUTHORITY;
        assertThrows(IllegalStateException.class, () -> SigningClient.store(uri).timestamp(authority).open());
        assertThrows(IllegalStateException.class, () -> SigningClient.file(store).timestampAuthority(store).open());
    }

    @Test
    void aToolkitThatAddsNoStampsIsRefusedWhenTheClientOpens() throws Exception {
        List<String> lines = ReducedToolkit.run(WithoutStamps.class, Map.of("VEX_TEST_WITHOUT", "stamp:"),
            store.toString()).output().lines().toList();
        assertEquals(List.of("NOT_SUPPORTED: The toolkit cannot add time stamps: it does not know the store stamp:;"
            + " open the client without timestamp", "without stamps: true"), lines);
    }

    // ---- Whose stamps ----

    @Test
    void stampsLeadToTheAuthority() throws Exception {
        Path root = authority.writeRoot(directory.resolve("time root & more.pem"));
        try (SigningClient client = SigningClient.file(store).timestamp(authority).timestampAuthority(root).open()) {
            authority.requireStamp(client.signCmsDetached(TEXT));
        }
        LocalAuthority other = new LocalAuthority();
        try (SigningClient client = SigningClient.file(store).timestamp(other).timestampAuthority(root).open()) {
            assertEquals(Reason.TIMESTAMP,
                assertThrows(SigningException.class, () -> client.signCmsDetached(TEXT)).reason());
        }
        assertEquals(1, other.requests());
    }

    @Test
    void anAuthoritysFileHasToBeThere() {
        Path missing = directory.resolve("missing.pem");
        SigningException e = assertThrows(SigningException.class,
            () -> SigningClient.file(store).timestamp(authority).timestampAuthority(missing).open());
        assertTrue(e.getMessage().contains("missing.pem"), e.getMessage());
    }

    // ---- Threads and closing ----

    /** More threads wait for the source than there are handles: none of them holds one. */
    @Test
    void noHandleIsHeldWhileTheSourceIsAsked() throws Exception {
        int threads = Runtime.getRuntime().availableProcessors() + 2;
        CyclicBarrier all = new CyclicBarrier(threads);
        try (SigningClient client = open(request -> {
            try {
                all.await(10, TimeUnit.MINUTES);
            } catch (Exception e) {
                throw new IOException(e);
            }
            return authority.timestamp(request);
        })) {
            Together.run(threads, thread -> {
                byte[] data = {(byte) thread};
                byte[] cms = client.signCmsDetached(data);
                requireSignature(cms, data, true, identity.certificate());
                authority.requireStamp(cms);
            });
        }
    }

    @Test
    void aStampThatHasBegunIsCompletedAfterAClose() throws Exception {
        AtomicReference<SigningClient> client = new AtomicReference<>();
        client.set(open(request -> {
            client.get().close();
            return authority.timestamp(request);
        }));
        authority.requireStamp(client.get().signCmsDetached(TEXT));
        assertThrows(IllegalStateException.class, () -> client.get().signCmsDetached(TEXT));
    }

    private static boolean isFinalized(HandlePool pool) {
        return pool.handles().stream()
            .allMatch(handle -> new TAVClientJNI().GetLastError(handle.number) == VCTKError.INVALID_HANDLE);
    }

    /** The source is asked between the two times that the file is read. */
    @Test
    void noticesAFileThatGrowsWhileItIsSigned() throws Exception {
        Path content = Files.write(directory.resolve("content"), TEXT_BYTES);
        try (SigningClient client = open(request -> {
            Files.writeString(content, "x", StandardOpenOption.APPEND);
            return authority.timestamp(request);
        })) {
            IOException e = assertThrows(IOException.class, () -> client.signCmsAttached(content));
            assertTrue(e.getMessage().contains("changed while it was signed"), e.getMessage());
        }
    }

    @Test
    void aClosedClientLeavesNoHandle() throws Exception {
        SigningClient client = open(authority);
        client.signCmsDetached(TEXT);
        assertFalse(isFinalized(client.stamps.pool()));
        client.close();
        assertTrue(isFinalized(client.stamps.pool()));
        assertTrue(isFinalized(client.session.pool()));
    }

    /** A source may belong to the object that has the client. */
    @Test
    void aForgottenClientIsReleasedAlthoughItsSourceRefersToIt() throws Exception {
        List<HandlePool> pools = poolsOfAForgottenClient();
        Garbage.awaitCollection(() -> pools.stream().allMatch(TimestampTest::isFinalized));
    }

    private List<HandlePool> poolsOfAForgottenClient() throws SigningException {
        AtomicReference<SigningClient> client = new AtomicReference<>();
        client.set(open(request -> {
            client.get().close();
            return request;
        }));
        return List.of(client.get().session.pool(), client.get().stamps.pool());
    }

    // ---- Stores whose URI has tsa= ----

    @Test
    void aKeyStoreOfAStampedStoreSignsNothing() throws Exception {
        KeyStore keys = KeyStore.getInstance(SigningProvider.KEY_STORE_TYPE, new SigningProvider());
        keys.load(StoreParameter.store("file:" + store + "?" + DEAD_AUTHORITY, null));
        String alias = keys.aliases().nextElement();
        assertEquals(identity.certificate(), keys.getCertificate(alias));
        Signature signature = Signature.getInstance("SHA256withECDSA", new SigningProvider());
        signature.initSign((PrivateKey) keys.getKey(alias, null));
        signature.update(TEXT_BYTES);
        SignatureException e = assertThrows(SignatureException.class, signature::sign);
        assertEquals(Reason.TIMESTAMP, ((SigningException) e.getCause()).reason());
        SigningProvider.close(keys);
    }

    @Test
    void aClientOfAStampedStoreTellsItsSigner() throws Exception {
        String uri = "file:" + store + "?" + DEAD_AUTHORITY;
        try (SigningClient client = SigningClient.store(uri).open()) {
            assertEquals(identity.certificate(), client.signer());
            for (Executable call : List.<Executable>of(() -> client.signRaw(TEXT_BYTES),
                    () -> client.signCmsDetached(TEXT_BYTES))) {
                assertEquals(Reason.TIMESTAMP, assertThrows(SigningException.class, call).reason());
            }
        }
        try (SigningClient client = SigningClient.store(uri).subjectContains("nobody").open()) {
            assertEquals(Reason.NO_CERTIFICATE, assertThrows(SigningException.class, client::signer).reason());
        }
    }
}
