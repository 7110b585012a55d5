package vex.client;

import java.nio.file.Path;
import java.security.KeyStore;
import java.security.PrivateKey;
import java.security.Security;
import java.security.Signature;
import java.security.cert.X509Certificate;
import vex.jni.Together;

/** Signs in sixteen threads with one client and one KeyStore, and prints what the toolkit's abilities change. */
final class WithoutSharing {
    private static final int THREADS = 16;
    private static final int ROUNDS = 10;

    private WithoutSharing() {}

    public static void main(String[] args) throws Exception {
        Path file = Path.of(args[0]);
        Security.addProvider(new SigningProvider());
        KeyStore store = KeyStore.getInstance(SigningProvider.KEY_STORE_TYPE);
        store.load(StoreParameter.file(file));
        String alias = store.aliases().nextElement();
        X509Certificate certificate = (X509Certificate) store.getCertificate(alias);
        PrivateKey key = (PrivateKey) store.getKey(alias, null);
        try (SigningClient client = SigningClient.file(file).open()) {
            Together.run(THREADS, thread -> {
                for (int round = 0; round < ROUNDS; ++round) {
                    byte[] data = {(byte) thread, (byte) round};
                    Signature signature = Signature.getInstance("SHA256withECDSA", SigningProvider.NAME);
                    signature.initSign(key);
                    signature.update(data);
                    requireGood(certificate, data, signature.sign());
                    requireGood(certificate, data, client.signRaw(data));
                }
            });
            int most = Runtime.getRuntime().availableProcessors();
            int handles = client.session.pool().handles().size();
            System.out.println(handles == 1 ? "one handle" : handles <= most ? "handles" : handles + " handles");
        }
        try {
            SigningClient.file(file.resolveSibling("missing.pem")).open();
        } catch (SigningException e) {
            System.out.println(e.getMessage());
        }
    }

    private static void requireGood(X509Certificate certificate, byte[] data, byte[] signature) throws Exception {
        Signature verifier = Signature.getInstance("SHA256withECDSA");
        verifier.initVerify(certificate);
        verifier.update(data);
        if (!verifier.verify(signature)) {
            throw new IllegalStateException("The signature is wrong");
        }
    }
}
