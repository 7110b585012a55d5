package vex.client;

import java.io.ByteArrayInputStream;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.security.GeneralSecurityException;
import java.security.KeyStore;
import java.security.MessageDigest;
import java.security.PrivateKey;
import java.security.Security;
import java.security.Signature;
import java.security.cert.X509Certificate;
import java.security.spec.MGF1ParameterSpec;
import java.security.spec.PSSParameterSpec;
import java.util.Base64;
import java.util.concurrent.CompletableFuture;
import javax.net.ssl.KeyManagerFactory;
import javax.net.ssl.SSLContext;
import javax.net.ssl.SSLServerSocket;
import javax.net.ssl.SSLSocket;
import javax.net.ssl.TrustManagerFactory;
import vex.jni.Signatures;

/** Signs with one key and prints what a toolkit that does not know the newer names of digests makes of it. */
final class WithoutDigestNames {
    private static final byte[] DATA = "I owe you 100 euros.".getBytes(StandardCharsets.US_ASCII);

    private final Path store;
    private final X509Certificate certificate;
    private final KeyStore keys;
    private final PrivateKey key;

    private WithoutDigestNames(Path store) throws Exception {
        this.store = store;
        keys = KeyStore.getInstance(SigningProvider.KEY_STORE_TYPE);
        keys.load(StoreParameter.file(store));
        String alias = keys.aliases().nextElement();
        certificate = (X509Certificate) keys.getCertificate(alias);
        key = (PrivateKey) keys.getKey(alias, null);
    }

    private interface Work {
        Object run() throws Exception;
    }

    private static void print(String what, Work work) {
        Object result;
        try {
            result = work.run();
        } catch (Exception e) {
            result = e.getClass().getSimpleName() + ": " + e.getMessage();
        }
        System.out.println(what + ": " + result);
    }

    public static void main(String[] args) throws Exception {
        Security.addProvider(new SigningProvider());
        WithoutDigestNames signer = new WithoutDigestNames(Path.of(args[0]));
        PSSParameterSpec pss = new PSSParameterSpec("SHA-256", "MGF1", MGF1ParameterSpec.SHA256, 32, 1);
        if (signer.key.getAlgorithm().equals("RSA")) {
            print("SHA256withRSA", () -> signer.isGood("SHA256withRSA", null, DATA));
            print("RSASSA-PSS", () -> signer.isGood("RSASSA-PSS", pss, DATA));
            print("NONEwithRSA", () -> signer.isGood("NONEwithRSA", null, DATA));
            print("TLS 1.2", signer::tlsCipherSuite);
        } else {
            print("SHA256withECDSA", () -> signer.isGood("SHA256withECDSA", null, DATA));
            print("P1363", () -> signer.isGood("SHA256withECDSAinP1363Format", null, DATA));
            print("empty", () -> signer.isGood("SHA256withECDSA", null, new byte[0]));
        }
        signer.signWithClient();
    }

    private boolean isGood(String name, PSSParameterSpec parameters, byte[] data) throws Exception {
        Signature signature = Signature.getInstance(name, SigningProvider.NAME);
        Signature verifier = Signature.getInstance(name);
        if (parameters != null) {
            signature.setParameter(parameters);
            verifier.setParameter(parameters);
        }
        signature.initSign(key);
        signature.update(data);
        verifier.initVerify(certificate.getPublicKey());
        verifier.update(data);
        return verifier.verify(signature.sign());
    }

    private void signWithClient() throws Exception {
        Path file = Files.write(Path.of(store + ".data"), DATA);
        try (SigningClient client = SigningClient.file(store).open()) {
            print("file", () -> isGood(client.signCmsDetached(file, CmsOption.OMIT_CERTIFICATE), true));
            print("file with content", () -> isGood(client.signCmsAttached(file, CmsOption.OMIT_CERTIFICATE), false));
            print("stream",
                () -> isGood(client.signCmsDetached(new ByteArrayInputStream(DATA), CmsOption.OMIT_CERTIFICATE), true));
            print("digest", () -> client.signDigest(MessageDigest.getInstance("SHA-256").digest(DATA)).length);
        }
    }

    private boolean isGood(byte[] cms, boolean detached) throws Exception {
        Signatures.assertP7(Base64.getEncoder().encodeToString(cms), DATA, detached, false, certificate,
            Signatures.SHA256_OID);
        return true;
    }

    /** Serves one connection with the key. */
    private String tlsCipherSuite() throws Exception {
        KeyManagerFactory managers = KeyManagerFactory.getInstance("PKIX");
        managers.init(keys, null);
        SSLContext server = SSLContext.getInstance("TLS");
        server.init(managers.getKeyManagers(), null, null);
        KeyStore roots = KeyStore.getInstance("PKCS12");
        roots.load(null, null);
        roots.setCertificateEntry("root", certificate);
        TrustManagerFactory trust = TrustManagerFactory.getInstance("PKIX");
        trust.init(roots);
        SSLContext client = SSLContext.getInstance("TLS");
        client.init(null, trust.getTrustManagers(), null);
        try (SSLServerSocket listener = (SSLServerSocket) server.getServerSocketFactory().createServerSocket(0)) {
            listener.setEnabledProtocols(new String[] {"TLSv1.2"});
            CompletableFuture<Integer> served = CompletableFuture.supplyAsync(() -> {
                try (SSLSocket socket = (SSLSocket) listener.accept()) {
                    return socket.getInputStream().read();
                } catch (Exception e) {
                    throw new IllegalStateException(e);
                }
            });
            try (SSLSocket socket = (SSLSocket) client.getSocketFactory()
                    .createSocket("localhost", listener.getLocalPort())) {
                socket.getOutputStream().write(1);
                if (served.get() != 1) {
                    throw new GeneralSecurityException("nothing arrived");
                }
                return socket.getSession().getCipherSuite();
            }
        }
    }
}
