package vex.client;

import java.nio.charset.StandardCharsets;
import java.security.KeyStore;
import java.security.PrivateKey;
import java.security.Provider;
import java.security.Signature;
import java.security.cert.X509Certificate;
import java.util.concurrent.atomic.AtomicInteger;
import vex.jni.Together;

/**
 * Sixteen threads use a token. With a number of documents, they sign so many with one KeyStore; one signature in ten is
 * verified. Without, each of them loads a KeyStore of its own, and the reasons why this fails are printed.
 */
final class TokenThreads {
    private static final int THREADS = 16;
    private static final Provider PROVIDER = new SigningProvider();

    private TokenThreads() {}

    private static KeyStore load(String uri, String pin) throws Exception {
        KeyStore store = KeyStore.getInstance(SigningProvider.KEY_STORE_TYPE, PROVIDER);
        store.load(StoreParameter.store(uri, new KeyStore.PasswordProtection(pin.toCharArray())));
        return store;
    }

    /** @param args the token's URI, the PIN, and perhaps a number of documents */
    public static void main(String[] args) throws Exception {
        if (args.length > 2) {
            sign(load(args[0], args[1]), Integer.parseInt(args[2]));
            return;
        }
        Together.run(THREADS, thread -> {
            try {
                load(args[0], args[1]);
            } catch (Exception e) {
                System.out.println(((SigningException) e.getCause().getCause()).number());
            }
        });
    }

    private static void sign(KeyStore store, int documents) throws Exception {
        String alias = store.aliases().nextElement();
        PrivateKey key = (PrivateKey) store.getKey(alias, null);
        X509Certificate certificate = (X509Certificate) store.getCertificate(alias);
        AtomicInteger next = new AtomicInteger();
        Together.run(THREADS, thread -> {
            Signature signature = Signature.getInstance("SHA256withECDSA", PROVIDER);
            signature.initSign(key);
            Signature verifier = Signature.getInstance("SHA256withECDSA");
            verifier.initVerify(certificate);
            for (int number; (number = next.getAndIncrement()) < documents;) {
                byte[] document = ("document " + number).getBytes(StandardCharsets.US_ASCII);
                signature.update(document);
                byte[] signed = signature.sign();
                if (number % 10 == 0) {
                    verifier.update(document);
                    if (!verifier.verify(signed)) {
                        throw new IllegalStateException("The signature of document " + number + " is wrong");
                    }
                }
            }
        });
    }
}
