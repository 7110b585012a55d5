package vex.jni;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.security.cert.X509Certificate;
import java.util.ArrayList;
import java.util.Base64;
import java.util.List;
import java.util.Random;
import java.util.stream.Stream;
import org.junit.jupiter.api.Tag;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.MethodSource;
import org.junit.jupiter.params.provider.ValueSource;

/** Signatures of every kind, verified by the JDK, Bouncy Castle and the openssl command. */
@Tag("natives")
class SignaturesTest {
    private static final String TEXT = "first line\r\nsecond line\nthird line\rlast line, 漢字 and 😀\n";
    private static final byte[] TEXT_BYTES = TEXT.getBytes(StandardCharsets.UTF_8);

    /** A digest algorithm: the argument for the toolkit, the JDK's spelling in signature algorithms, and the OID. */
    private record Digest(String name, String jdkName, String oid) {}

    private static final List<Digest> DIGESTS = List.of(
        new Digest("SHA256", "SHA256", "2.16.840.1.101.3.4.2.1"),
        new Digest("sha-384", "SHA384", "2.16.840.1.101.3.4.2.2"),
        new Digest("SHA-512", "SHA512", "2.16.840.1.101.3.4.2.3"));

    private record P1Case(String key, Digest digest) {}

    static Stream<P1Case> p1Cases() {
        return Stream.of(Client.RSA, Client.EC).flatMap(key -> DIGESTS.stream().map(digest -> new P1Case(key, digest)));
    }

    private record P7Case(String key, Digest digest, boolean detached, boolean withCertificate) {}

    static Stream<P7Case> p7Cases() {
        return p1Cases().flatMap(c -> Stream.of(
            new P7Case(c.key(), c.digest(), true, true),
            new P7Case(c.key(), c.digest(), true, false),
            new P7Case(c.key(), c.digest(), false, true),
            new P7Case(c.key(), c.digest(), false, false)));
    }

    private static Client open(String key, Digest digest) {
        Client client = Client.openDemo(key);
        client.setDigest(digest.name());
        return client;
    }

    @ParameterizedTest
    @MethodSource("p1Cases")
    void theJdkVerifiesP1(P1Case c) throws Exception {
        try (Client client = open(c.key(), c.digest())) {
            X509Certificate certificate = Signatures.signerOf(client);
            assertEquals(c.key(), certificate.getPublicKey().getAlgorithm());

            String ofText = client.require(client.p1SignString(TEXT));
            String ofBase64 = client.require(client.p1Sign(Base64.getEncoder().encodeToString(TEXT_BYTES)));
            for (String signature : List.of(ofText, ofBase64)) {
                assertTrue(Signatures.isP1Good(signature, TEXT_BYTES, certificate, c.digest().jdkName()));
                assertFalse(Signatures.isP1Good(signature, "another text".getBytes(StandardCharsets.UTF_8), certificate,
                    c.digest().jdkName()));
            }
        }
    }

    @ParameterizedTest
    @MethodSource("p1Cases")
    void openSslVerifiesP1(P1Case c, @TempDir Path directory) throws Exception {
        OpenSslCommand openSsl = new OpenSslCommand(directory);
        try (Client client = open(c.key(), c.digest())) {
            openSsl.writePem("public.pem", "PUBLIC KEY", Signatures.signerOf(client).getPublicKey().getEncoded());
            openSsl.write("content", TEXT_BYTES);
            openSsl.write("p1", Base64.getDecoder().decode(client.require(client.p1SignString(TEXT))));
        }
        openSsl.run("dgst", "-" + c.digest().jdkName().toLowerCase(), "-verify", "public.pem", "-signature", "p1",
            "content");
    }

    @ParameterizedTest
    @MethodSource("p7Cases")
    void bouncyCastleVerifiesP7(P7Case c) throws Exception {
        try (Client client = open(c.key(), c.digest())) {
            X509Certificate certificate = Signatures.signerOf(client);
            String ofText = client.require(client.p7SignString(TEXT, c.detached(), c.withCertificate()));
            String ofBase64 = client.require(
                client.p7Sign(Base64.getEncoder().encodeToString(TEXT_BYTES), c.detached(), c.withCertificate()));
            for (String signature : List.of(ofText, ofBase64)) {
                Signatures.assertP7(signature, TEXT_BYTES, c.detached(), c.withCertificate(), certificate,
                    c.digest().oid());
            }
        }
    }

    @ParameterizedTest
    @MethodSource("p7Cases")
    void openSslVerifiesP7(P7Case c, @TempDir Path directory) throws Exception {
        OpenSslCommand openSsl = new OpenSslCommand(directory);
        try (Client client = open(c.key(), c.digest())) {
            openSsl.writeCertificate(Signatures.signerOf(client));
            openSsl.write("content", TEXT_BYTES);
            openSsl.write("p7", Base64.getDecoder().decode(
                client.require(client.p7SignString(TEXT, c.detached(), c.withCertificate()))));
        }
        List<String> arguments = new ArrayList<>(List.of("cms", "-verify", "-binary", "-inform", "DER", "-in", "p7",
            "-CAfile", "cert.pem", "-out", "recovered"));
        if (c.detached()) {
            arguments.addAll(List.of("-content", "content"));
        }
        if (!c.withCertificate()) {
            arguments.addAll(List.of("-certfile", "cert.pem"));
        }
        openSsl.run(arguments.toArray(new String[0]));
        assertArrayEquals(TEXT_BYTES, Files.readAllBytes(directory.resolve("recovered")));
    }

    @Test
    void p7UsesTheLow32BitsOfItsFlags() throws Exception {
        try (Client client = Client.openDemo(Client.EC)) {
            X509Certificate certificate = Signatures.signerOf(client);
            String oid = DIGESTS.get(0).oid();
            String neither = Client.NATIVES.P7SignString(client.handle(), TEXT, 1L << 32, 1L << 32);
            Signatures.assertP7(client.require(neither), TEXT_BYTES, false, false, certificate, oid);
            String both = Client.NATIVES.P7SignString(client.handle(), TEXT, -1, 2);
            Signatures.assertP7(client.require(both), TEXT_BYTES, true, true, certificate, oid);
        }
    }

    @ParameterizedTest
    @ValueSource(ints = {1, 2, 3, 255, 65536, 1 << 20})
    void signsAnyBytesThroughBase64(int length) throws Exception {
        byte[] bytes = new byte[length];
        new Random(length).nextBytes(bytes);
        String base64 = Base64.getEncoder().encodeToString(bytes);
        for (String key : List.of(Client.RSA, Client.EC)) {
            try (Client client = Client.openDemo(key)) {
                X509Certificate certificate = Signatures.signerOf(client);
                String p1 = client.require(client.p1Sign(base64));
                assertTrue(Signatures.isP1Good(p1, bytes, certificate, "SHA256"));
                String p7 = client.require(client.p7Sign(base64, false, true));
                Signatures.assertP7(p7, bytes, false, true, certificate, DIGESTS.get(0).oid());
            }
        }
    }

    @ParameterizedTest
    @ValueSource(strings = {"dGV4dA", "dGV4dA=", "dGV4dA===", "dGV4dA==\n", " dGV4dA==", "dGV4\r\ndA==", "dGV4d!==",
        "dGV4dB==", "d", "=", "====", "dGV-", "dGV_", "漢字"})
    void refusesMalformedBase64(String malformed) {
        try (Client client = Client.openDemo()) {
            for (String signature : new String[] {client.p1Sign(malformed), client.p7Sign(malformed, true, true)}) {
                assertNull(signature);
                assertEquals(VCTKError.DATA_BASE64, client.lastError());
                assertTrue(client.lastMessage().startsWith(VCTKError.message(VCTKError.DATA_BASE64)));
            }
        }
    }

    @Test
    void returnsSignaturesAsOneLineOfBase64() {
        try (Client client = Client.openDemo(Client.RSA)) {
            for (String signature : List.of(client.require(client.p1SignString(TEXT)),
                    client.require(client.p7SignString(TEXT, false, true)))) {
                assertTrue(signature.matches("[A-Za-z0-9+/]+={0,2}"), signature);
            }
        }
    }
}
