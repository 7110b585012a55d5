package vex.jni;

import java.io.OutputStream;
import java.math.BigInteger;
import java.nio.file.Files;
import java.nio.file.Path;
import java.security.KeyPair;
import java.security.KeyPairGenerator;
import java.security.KeyStore;
import java.security.PrivateKey;
import java.security.Provider;
import java.security.cert.Certificate;
import java.security.cert.CertificateEncodingException;
import java.security.cert.X509Certificate;
import java.security.interfaces.EdECKey;
import java.security.spec.ECGenParameterSpec;
import java.time.Duration;
import java.time.Instant;
import java.util.ArrayList;
import java.util.Base64;
import java.util.Date;
import java.util.LinkedList;
import java.util.List;
import org.bouncycastle.asn1.DERBMPString;
import org.bouncycastle.asn1.x500.X500Name;
import org.bouncycastle.asn1.x509.BasicConstraints;
import org.bouncycastle.asn1.x509.Extension;
import org.bouncycastle.asn1.x509.KeyUsage;
import org.bouncycastle.asn1.x509.SubjectKeyIdentifier;
import org.bouncycastle.cert.X509CertificateHolder;
import org.bouncycastle.cert.jcajce.JcaX509CertificateConverter;
import org.bouncycastle.cert.jcajce.JcaX509CertificateHolder;
import org.bouncycastle.cert.jcajce.JcaX509ExtensionUtils;
import org.bouncycastle.cert.jcajce.JcaX509v3CertificateBuilder;
import org.bouncycastle.jce.provider.BouncyCastleProvider;
import org.bouncycastle.operator.jcajce.JcaContentSignerBuilder;
import org.bouncycastle.pkcs.PKCS12PfxPduBuilder;
import org.bouncycastle.pkcs.PKCS12SafeBag;
import org.bouncycastle.pkcs.PKCS12SafeBagBuilder;
import org.bouncycastle.pkcs.jcajce.JcaPKCS12SafeBagBuilder;
import org.bouncycastle.pkcs.jcajce.JcePKCS12MacCalculatorBuilder;

/** Creates store files with keys and self-signed certificates, with the JDK and Bouncy Castle. */
public final class TestStore {
    public static final String PIN = "correct horse";

    /** A certificate and its key. */
    public record Identity(PrivateKey key, X509Certificate certificate) {}

    private static final Provider BOUNCY_CASTLE = new BouncyCastleProvider();

    private TestStore() {}

    /**
     * Creates a key and its certificate.
     *
     * @param key RSA, RSA with a length (RSA-3072), RSASSA-PSS, or the name of a curve, also Ed25519
     * @param days the number of days until the certificate expires; negative if it has expired
     * @param keyUsage bits of {@link KeyUsage}, 0 for no restriction
     */
    public static Identity identity(String key, String subject, long serial, int days, int keyUsage) throws Exception {
        Instant end = Instant.now().plus(Duration.ofDays(days));
        Instant begin = (days < 0 ? end : Instant.now()).minus(Duration.ofDays(1));
        return identity(key, subject, serial, begin, end, keyUsage);
    }

    /** A certificate that is valid from the second of {@code begin} to that of {@code end}. */
    public static Identity identity(String key, String subject, Instant begin, Instant end) throws Exception {
        return identity(key, subject, 1, begin, end, 0);
    }

    private static Identity identity(String key, String subject, long serial, Instant begin, Instant end, int keyUsage)
            throws Exception {
        KeyPair pair = keyPair(key);
        X500Name name = new X500Name(subject);
        JcaX509v3CertificateBuilder builder = new JcaX509v3CertificateBuilder(
            name, BigInteger.valueOf(serial), Date.from(begin), Date.from(end), name, pair.getPublic());
        if (keyUsage != 0) {
            builder.addExtension(Extension.keyUsage, true, new KeyUsage(keyUsage));
        }
        return new Identity(pair.getPrivate(), sign(builder, pair.getPrivate()));
    }

    /**
     * Creates a chain of certificates: the signer's first, the root last. Each issues the one before it.
     *
     * @param key of all of them, as for {@link #identity}
     */
    public static List<Identity> chain(String key, int length) throws Exception {
        List<KeyPair> pairs = new ArrayList<>();
        for (int i = 0; i < length; ++i) {
            pairs.add(keyPair(key));
        }
        return chain(pairs);
    }

    /** The same with these keys, the signer's first. */
    public static List<Identity> chain(List<KeyPair> pairs) throws Exception {
        LinkedList<Identity> chain = new LinkedList<>();
        for (int i = pairs.size() - 1; i >= 0; --i) {
            String subject = chain.isEmpty() ? "CN=Root" : i == 0 ? "CN=Signer" : "CN=CA " + chain.size();
            chain.addFirst(issue(pairs.get(i), subject, chain.peekFirst(), i > 0));
        }
        return chain;
    }

    /** @param issuer null for a self-signed certificate */
    private static Identity issue(KeyPair pair, String subject, Identity issuer, boolean authority) throws Exception {
        X500Name name = new X500Name(subject);
        Instant now = Instant.now();
        JcaX509v3CertificateBuilder builder = new JcaX509v3CertificateBuilder(
            issuer == null ? name : X500Name.getInstance(issuer.certificate().getSubjectX500Principal().getEncoded()),
            BigInteger.valueOf(now.getNano() + 1L), Date.from(now.minus(Duration.ofDays(1))),
            Date.from(now.plus(Duration.ofDays(30))), name, pair.getPublic());
        builder.addExtension(Extension.basicConstraints, true, new BasicConstraints(authority));
        builder.addExtension(Extension.keyUsage, true,
            new KeyUsage(authority ? KeyUsage.keyCertSign : KeyUsage.digitalSignature));
        PrivateKey signer = issuer == null ? pair.getPrivate() : issuer.key();
        return new Identity(pair.getPrivate(), sign(builder, signer));
    }

    /** @param key as for {@link #identity} */
    public static KeyPair keyPair(String key) throws Exception {
        boolean rsa = key.startsWith("RSA-") || key.equals("RSA");
        boolean named = key.equals("RSASSA-PSS") || key.startsWith("Ed");
        KeyPairGenerator generator = KeyPairGenerator.getInstance(rsa ? "RSA" : named ? key : "EC");
        if (rsa) {
            generator.initialize(key.equals("RSA") ? 2048 : Integer.parseInt(key.substring("RSA-".length())));
        } else if (key.equals("RSASSA-PSS")) {
            generator.initialize(2048);
        } else if (!named) {
            generator.initialize(new ECGenParameterSpec(key));
        }
        return generator.generateKeyPair();
    }

    private static X509Certificate sign(JcaX509v3CertificateBuilder builder, PrivateKey key) throws Exception {
        String algorithm = switch (key.getAlgorithm()) {
            case "RSA" -> "SHA256withRSA";
            case "RSASSA-PSS" -> "SHA256withRSAandMGF1";
            case "EdDSA" -> ((EdECKey) key).getParams().getName();
            default -> "SHA256withECDSA";
        };
        JcaContentSignerBuilder signer = new JcaContentSignerBuilder(algorithm);
        if (key.getAlgorithm().equals("RSASSA-PSS")) {
            signer.setProvider(BOUNCY_CASTLE);  // the JDK does not know this name
        }
        return new JcaX509CertificateConverter().getCertificate(builder.build(signer.build(key)));
    }

    /** Writes a PKCS #12 file with the PIN {@link #PIN} that has one key and its chain. */
    public static void writeChain(Path file, List<Identity> chain) throws Exception {
        KeyStore store = KeyStore.getInstance("PKCS12");
        store.load(null, null);
        store.setKeyEntry("key", chain.get(0).key(), PIN.toCharArray(),
            chain.stream().map(Identity::certificate).toArray(Certificate[]::new));
        try (OutputStream stream = Files.newOutputStream(file)) {
            store.store(stream, PIN.toCharArray());
        }
    }

    /** Writes a PKCS #12 file with the PIN {@link #PIN}, as the JDK writes it by default. */
    public static void writePkcs12(Path file, List<Identity> identities) throws Exception {
        KeyStore store = KeyStore.getInstance("PKCS12");
        store.load(null, null);
        for (int i = 0; i < identities.size(); ++i) {
            store.setKeyEntry("key" + i, identities.get(i).key(), PIN.toCharArray(),
                new Certificate[] {identities.get(i).certificate()});
        }
        try (OutputStream stream = Files.newOutputStream(file)) {
            store.store(stream, PIN.toCharArray());
        }
    }

    /** A certificate and its key, with a friendly name. Java need not be able to read the certificate. */
    public record Named(String name, PrivateKey key, X509CertificateHolder certificate) {
        public static Named of(String name, Identity identity) throws Exception {
            return new Named(name, identity.key(), new JcaX509CertificateHolder(identity.certificate()));
        }
    }

    /** Writes a PKCS #12 file with the PIN {@link #PIN}. The JDK would write the names in lower case. */
    public static void writeNamed(Path file, List<Named> entries) throws Exception {
        PKCS12PfxPduBuilder pfx = new PKCS12PfxPduBuilder();
        for (Named entry : entries) {
            SubjectKeyIdentifier id =
                new JcaX509ExtensionUtils().createSubjectKeyIdentifier(entry.certificate().getSubjectPublicKeyInfo());
            for (PKCS12SafeBagBuilder bag : List.of(
                    new PKCS12SafeBagBuilder(entry.certificate()), new JcaPKCS12SafeBagBuilder(entry.key()))) {
                bag.addBagAttribute(PKCS12SafeBag.friendlyNameAttribute, new DERBMPString(entry.name()));
                bag.addBagAttribute(PKCS12SafeBag.localKeyIdAttribute, id);
                pfx.addData(bag.build());
            }
        }
        Files.write(file, pfx.build(new JcePKCS12MacCalculatorBuilder().setProvider(BOUNCY_CASTLE), PIN.toCharArray())
            .getEncoded());
    }

    /** Writes a PEM file without a PIN, and returns its URI. */
    public static String writePem(Path file, List<Identity> identities) throws Exception {
        StringBuilder pem = new StringBuilder();
        for (Identity identity : identities) {
            pem.append(pem("PRIVATE KEY", identity.key().getEncoded()));
            pem.append(pem("CERTIFICATE", identity.certificate().getEncoded()));
        }
        Files.writeString(file, pem);
        return "file:" + file;
    }

    /** The PEM form, RFC 7468. */
    public static String pem(String label, byte[] der) {
        String body = Base64.getMimeEncoder(64, new byte[] {'\n'}).encodeToString(der);
        return "-----BEGIN " + label + "-----\n" + body + "\n-----END " + label + "-----\n";
    }

    /** The PEM forms of certificates, one behind the other. */
    static String pem(Iterable<X509Certificate> certificates) throws CertificateEncodingException {
        StringBuilder pem = new StringBuilder();
        for (X509Certificate certificate : certificates) {
            pem.append(pem("CERTIFICATE", certificate.getEncoded()));
        }
        return pem.toString();
    }
}
