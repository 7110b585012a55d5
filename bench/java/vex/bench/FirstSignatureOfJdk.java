package vex.bench;

import java.io.InputStream;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Paths;
import java.security.KeyStore;
import java.security.PrivateKey;
import java.security.Signature;

/** The first signature of a fresh JVM with the JDK's own providers. Arguments: PKCS #12 file, PIN, text. */
final class FirstSignatureOfJdk {
    private FirstSignatureOfJdk() {}

    public static void main(String[] arguments) throws Exception {
        Stages.end("JVM");
        char[] pin = arguments[1].toCharArray();
        KeyStore store = KeyStore.getInstance("PKCS12");
        try (InputStream file = Files.newInputStream(Paths.get(arguments[0]))) {
            store.load(file, pin);
        }
        PrivateKey key = (PrivateKey) store.getKey(store.aliases().nextElement(), pin);
        Stages.end("store");
        Signature signature = Signature.getInstance("SHA256withRSA");
        signature.initSign(key);
        signature.update(arguments[2].getBytes(StandardCharsets.UTF_8));
        Stages.endWith(signature.sign());
    }
}
