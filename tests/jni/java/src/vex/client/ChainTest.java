package vex.client;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.IOException;
import java.io.InputStream;
import java.io.UncheckedIOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.security.KeyPair;
import java.security.KeyStore;
import java.security.Security;
import java.security.cert.CertPathBuilderException;
import java.security.cert.Certificate;
import java.security.cert.X509Certificate;
import java.util.ArrayList;
import java.util.Collections;
import java.util.HashMap;
import java.util.List;
import java.util.Map;
import java.util.Set;
import java.util.concurrent.CompletableFuture;
import javax.net.ssl.KeyManagerFactory;
import javax.net.ssl.SSLContext;
import javax.net.ssl.SSLServerSocket;
import javax.net.ssl.SSLSocket;
import javax.net.ssl.TrustManagerFactory;
import org.bouncycastle.cert.X509CertificateHolder;
import org.bouncycastle.cert.jcajce.JcaX509CertificateConverter;
import org.bouncycastle.cms.CMSProcessableByteArray;
import org.bouncycastle.cms.CMSSignedData;
import org.bouncycastle.cms.SignerInformation;
import org.bouncycastle.cms.jcajce.JcaSimpleSignerInfoVerifierBuilder;
import org.bouncycastle.jce.provider.BouncyCastleProvider;
import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.api.Tag;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.CsvSource;
import org.junit.jupiter.params.provider.ValueSource;
import vex.jni.Run;
import vex.jni.Signatures;
import vex.jni.TestStore;
import vex.jni.VCTKError;

/** The certificates of issuers, shown to verifiers that know only the root. */
@Tag("client")
class ChainTest {
    private static final byte[] DATA = "I owe you 100 euros.".getBytes();
    private static final Map<String, List<KeyPair>> KEYS = new HashMap<>();

    @TempDir
    private Path directory;

    @AfterEach
    void removeProvider() {
        Security.removeProvider(SigningProvider.NAME);
    }

    /** All chains have the same keys, because an RSA key takes long to make. */
    private static List<TestStore.Identity> chain(String key, int length) throws Exception {
        List<KeyPair> pairs = KEYS.computeIfAbsent(key, kind -> new ArrayList<>());
        while (pairs.size() < length) {
            pairs.add(TestStore.keyPair(key));
        }
        return TestStore.chain(pairs.subList(0, length));
    }

    private Path file() {
        return directory.resolve("keys.p12");
    }

    private static KeyStore load(StoreParameter parameter) throws Exception {
        KeyStore store = KeyStore.getInstance(SigningProvider.KEY_STORE_TYPE, new SigningProvider());
        store.load(parameter);
        return store;
    }

    private KeyStore load() throws Exception {
        return load(StoreParameter.file(file(), new KeyStore.PasswordProtection(TestStore.PIN.toCharArray())));
    }

    private static Certificate[] onlyChain(KeyStore store) throws Exception {
        assertEquals(1, store.size());
        return store.getCertificateChain(store.aliases().nextElement());
    }

    private static Certificate[] certificates(List<TestStore.Identity> chain) {
        return chain.stream().map(TestStore.Identity::certificate).toArray(Certificate[]::new);
    }

    private Path writePem(String name, List<TestStore.Identity> identities) throws Exception {
        StringBuilder pem = new StringBuilder();
        for (TestStore.Identity identity : identities) {
            pem.append(TestStore.pem("CERTIFICATE", identity.certificate().getEncoded()));
        }
        return Files.writeString(directory.resolve(name), pem);
    }

    @ParameterizedTest
    @CsvSource({"RSA,1", "RSA,2", "RSA,3", "RSA,4", "secp256r1,1", "secp256r1,2", "secp256r1,3", "secp256r1,4"})
    void keyStoreHasTheChainThatTheJdkReads(String key, int length) throws Exception {
        TestStore.writeChain(file(), chain(key, length));
        KeyStore jdk = KeyStore.getInstance("PKCS12");
        try (InputStream stream = Files.newInputStream(file())) {
            jdk.load(stream, TestStore.PIN.toCharArray());
        }
        KeyStore store = load();
        assertArrayEquals(jdk.getCertificateChain("key"), onlyChain(store));
        String alias = store.aliases().nextElement();
        KeyStore.PrivateKeyEntry entry = (KeyStore.PrivateKeyEntry) store.getEntry(alias, null);
        assertArrayEquals(jdk.getCertificateChain("key"), entry.getCertificateChain());
        assertEquals(jdk.getCertificate("key"), store.getCertificate(alias));
    }

    @Test
    void keyStoreTakesIssuersFromAFile() throws Exception {
        List<TestStore.Identity> chain = TestStore.chain("secp256r1", 4);
        TestStore.writeChain(file(), chain.subList(0, 1));
        KeyStore.PasswordProtection pin = new KeyStore.PasswordProtection(TestStore.PIN.toCharArray());
        assertEquals(1, onlyChain(load(StoreParameter.file(file(), pin))).length);

        List<TestStore.Identity> issuers = new ArrayList<>(chain.subList(1, 4));
        Collections.reverse(issuers);
        StoreParameter parameter = StoreParameter.file(file(), pin).withChain(writePem("a & b.pem", issuers));
        assertArrayEquals(certificates(chain), onlyChain(load(parameter)));
    }

    @Test
    void aStoreHasOneFileWithIssuers() {
        Path file = directory.resolve("issuers.pem");
        String uri = "file:/keys.p12?chain-source=file:/issuers.pem";
        String advice = "put all their certificates into one file";
        for (StoreParameter parameter :
                List.of(StoreParameter.file(file()).withChain(file), StoreParameter.store(uri, null))) {
            IllegalStateException e = assertThrows(IllegalStateException.class, () -> parameter.withChain(file));
            assertTrue(e.getMessage().contains(advice), e.getMessage());
        }
        SigningException e =
            assertThrows(SigningException.class, () -> SigningClient.store(uri).chainFile(file).open());
        assertEquals(VCTKError.URI_MALFORMED, e.number());
        assertTrue(e.getMessage().contains(advice), e.getMessage());
    }

    private SigningClient.Builder client() {
        return SigningClient.file(file()).pin(TestStore.PIN.toCharArray());
    }

    private static CMSSignedData parse(byte[] signature) throws Exception {
        return new CMSSignedData(new CMSProcessableByteArray(DATA), signature);
    }

    /** Follows RFC 5652 and RFC 5280 as somebody who has the signature, the data and the root. */
    private static void verify(byte[] signature, X509Certificate root) throws Exception {
        CMSSignedData signed = parse(signature);
        SignerInformation signer = signed.getSignerInfos().getSigners().iterator().next();
        X509Certificate certificate = new JcaX509CertificateConverter().getCertificate(
            signed.getCertificates().getMatches(null).stream().filter(signer.getSID()::match).findFirst().get());
        BouncyCastleProvider provider = new BouncyCastleProvider();
        assertTrue(signer.verify(new JcaSimpleSignerInfoVerifierBuilder().setProvider(provider).build(certificate)));

        Signatures.requirePath(signature, certificate, root, provider);
        Signatures.requirePath(signature, certificate, root, Security.getProvider("SUN"));
    }

    @ParameterizedTest
    @CsvSource({"RSA,2", "RSA,3", "RSA,4", "secp384r1,2", "secp384r1,3", "secp384r1,4"})
    void clientIncludesTheChainOnRequest(String key, int length) throws Exception {
        List<TestStore.Identity> chain = chain(key, length);
        X509Certificate root = chain.get(length - 1).certificate();
        TestStore.writeChain(file(), chain);
        try (SigningClient client = client().open()) {
            assertEquals(1, client.certificates().size());
            byte[] whole = client.signCmsDetached(DATA, CmsOption.INCLUDE_CHAIN);
            assertEquals(length - 1, Signatures.certificatesIn(whole).size(), "without the root");
            verify(whole, root);
            byte[] leaf = client.signCmsDetached(DATA);
            assertEquals(chain.get(0).certificate(), Signatures.certificateIn(leaf));
            assertEquals(Set.of(), Signatures.certificatesIn(client.signCmsDetached(DATA, CmsOption.OMIT_CERTIFICATE)));
            if (length > 2) {
                assertThrows(CertPathBuilderException.class, () -> verify(leaf, root));
            }
        }
    }

    @Test
    void clientTakesIssuersFromAFile() throws Exception {
        List<TestStore.Identity> chain = TestStore.chain("secp256r1", 3);
        TestStore.writeChain(file(), chain.subList(0, 1));
        try (SigningClient client = client().chainFile(writePem("chain.pem", chain.subList(1, 2))).open()) {
            verify(client.signCmsDetached(DATA, CmsOption.INCLUDE_CHAIN), chain.get(2).certificate());
        }
        SigningException e =
            assertThrows(SigningException.class, () -> client().chainFile(directory.resolve("missing.pem")).open());
        assertEquals(VCTKError.STORE_NOT_FOUND, e.number());
    }

    /** A toolkit may refuse the store's URI with another number than ours. */
    @ParameterizedTest
    @ValueSource(ints = {VCTKError.URI_MALFORMED, 7})
    void signsWithoutChainsIfTheToolkitHasNone(int number) throws Exception {
        TestStore.writeChain(file(), TestStore.chain("secp256r1", 3));
        Run run = ReducedToolkit.run(WithoutChains.class, Map.of("VEX_TEST_WITHOUT", "chain= list= errors= handle:",
            "VEX_TEST_REFUSAL", Integer.toString(number)), file().toString());
        assertEquals("KeyStore: 1\nsignature: 1\nresult: true, 1\nlisted: NOT_SUPPORTED\n"
            + "with chain: The toolkit cannot include a chain; leave out INCLUDE_CHAIN and pass the chain on yourself\n"
            + "with a chain's file: "
            + VCTKError.INVALID_ARGUMENT + "\n", run.output());
    }

    @ParameterizedTest
    @ValueSource(strings = {"TLSv1.2", "TLSv1.3"})
    void tlsClientThatKnowsOnlyTheRootTrustsTheServer(String protocol) throws Exception {
        Security.addProvider(new SigningProvider());
        List<TestStore.Identity> chain = TestStore.chain("secp256r1", 4);
        TestStore.writeChain(file(), chain);
        KeyManagerFactory keys = KeyManagerFactory.getInstance("PKIX");
        keys.init(load(), null);
        SSLContext server = SSLContext.getInstance("TLS");
        server.init(keys.getKeyManagers(), null, null);

        KeyStore roots = KeyStore.getInstance("PKCS12");
        roots.load(null, null);
        roots.setCertificateEntry("root", chain.get(3).certificate());
        TrustManagerFactory trust = TrustManagerFactory.getInstance("PKIX");
        trust.init(roots);
        SSLContext client = SSLContext.getInstance("TLS");
        client.init(null, trust.getTrustManagers(), null);

        try (SSLServerSocket listener = (SSLServerSocket) server.getServerSocketFactory().createServerSocket(0)) {
            CompletableFuture<Void> served = CompletableFuture.runAsync(() -> {
                try (SSLSocket socket = (SSLSocket) listener.accept()) {
                    socket.getOutputStream().write(DATA);
                } catch (IOException e) {
                    throw new UncheckedIOException(e);
                }
            });
            try (SSLSocket socket = (SSLSocket) client.getSocketFactory()
                    .createSocket("localhost", listener.getLocalPort())) {
                socket.setEnabledProtocols(new String[] {protocol});
                assertArrayEquals(DATA, socket.getInputStream().readNBytes(DATA.length));
                assertEquals(protocol, socket.getSession().getProtocol());
            }
            served.join();
        }
    }
}
