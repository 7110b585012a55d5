package signing;

import java.nio.charset.StandardCharsets;
import java.security.KeyStore;
import java.security.PrivateKey;
import java.security.Provider;
import java.security.Signature;
import java.security.interfaces.RSAKey;
import java.util.Collections;
import java.util.ServiceLoader;
import vex.client.SigningClient;

/** Signs with both interfaces of the jar, verifies, and prints which module it used. */
public final class Main {
    private static final String TEXT = "I owe you 100 euros.";

    private Main() {}

    public static void main(String[] args) throws Exception {
        try (SigningClient client = SigningClient.store("demo:").open()) {
            System.out.println("CMS of " + (client.signCmsDetached(TEXT).length > 0 ? "some" : "no") + " bytes");
        }

        KeyStore store = KeyStore.getInstance("VexClient", provider());
        store.load(null, null);
        for (String alias : Collections.list(store.aliases())) {
            PrivateKey key = (PrivateKey) store.getKey(alias, null);
            String algorithm = key instanceof RSAKey ? "SHA256withRSA" : "SHA256withECDSA";
            Signature signer = Signature.getInstance(algorithm, store.getProvider());
            signer.initSign(key);
            signer.update(TEXT.getBytes(StandardCharsets.UTF_8));
            byte[] signature = signer.sign();

            Signature verifier = Signature.getInstance(algorithm);
            verifier.initVerify(store.getCertificate(alias));
            verifier.update(TEXT.getBytes(StandardCharsets.UTF_8));
            System.out.println(algorithm + " " + (verifier.verify(signature) ? "verified" : "does not verify"));
        }
        Module module = SigningClient.class.getModule();
        System.out.println(module.isNamed() ? "module " + module.getDescriptor().toNameAndVersion() : "class path");
    }

    /** The jar's provider, found as a service, with the store that it opens. */
    private static Provider provider() {
        for (Provider provider : ServiceLoader.load(Provider.class)) {
            if (provider.getName().equals("VexClient")) {
                return provider.configure("demo:");
            }
        }
        throw new IllegalStateException("no provider VexClient");
    }
}
