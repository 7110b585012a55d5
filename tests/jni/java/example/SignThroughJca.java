import java.nio.charset.StandardCharsets;
import java.security.GeneralSecurityException;
import java.security.KeyStore;
import java.security.PrivateKey;
import java.security.Security;
import java.security.Signature;
import java.security.cert.X509Certificate;
import java.security.interfaces.RSAKey;
import java.util.Collections;
import vex.client.SigningProvider;
import vex.client.StoreParameter;

public class SignThroughJca {
    public static void main(String[] args) throws Exception {
        Security.addProvider(new SigningProvider());
        KeyStore store = KeyStore.getInstance("VexClient");
        store.load(StoreParameter.store("demo:", null));

        byte[] data = "I owe you 100 euros.".getBytes(StandardCharsets.UTF_8);
        for (String alias : Collections.list(store.aliases())) {
            PrivateKey key = (PrivateKey) store.getKey(alias, null);
            X509Certificate certificate = (X509Certificate) store.getCertificate(alias);
            String algorithm = key instanceof RSAKey ? "SHA256withRSA" : "SHA256withECDSA";

            Signature signer = Signature.getInstance(algorithm);
            signer.initSign(key);  // the key selects this provider
            signer.update(data);
            byte[] signature = signer.sign();

            Signature verifier = Signature.getInstance(algorithm);
            verifier.initVerify(certificate);  // the certificate selects another one
            verifier.update(data);
            if (!verifier.verify(signature)) {
                throw new GeneralSecurityException("The signature does not verify.");
            }
            System.out.println(algorithm + " by " + certificate.getSubjectX500Principal());
        }
    }
}
