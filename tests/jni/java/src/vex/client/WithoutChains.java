package vex.client;

import java.nio.charset.StandardCharsets;
import java.nio.file.Path;
import java.security.KeyStore;
import java.security.Signature;
import vex.jni.Signatures;
import vex.jni.TestStore;

/** Signs with the store in a file and prints what a toolkit that knows no chains makes of it. */
final class WithoutChains {
    private WithoutChains() {}

    public static void main(String[] args) throws Exception {
        Path file = Path.of(args[0]);
        char[] pin = TestStore.PIN.toCharArray();
        KeyStore store = KeyStore.getInstance(SigningProvider.KEY_STORE_TYPE, new SigningProvider());
        store.load(StoreParameter.file(file, new KeyStore.PasswordProtection(pin)));
        System.out.println("KeyStore: " + store.getCertificateChain(store.aliases().nextElement()).length);

        byte[] data = "data".getBytes(StandardCharsets.US_ASCII);
        try (SigningClient client = SigningClient.file(file).pin(pin).open()) {
            byte[] signature = client.signCmsDetached(data);
            System.out.println("signature: " + Signatures.certificatesIn(signature).size());
            SigningResult result = client.sign(SigningRequest.raw(data));
            Signature verifier = Signature.getInstance(result.algorithm());
            verifier.initVerify(client.signer());
            verifier.update(data);
            System.out.println("result: " + verifier.verify(result.signature()) + ", " + result.chain().size());
            try {
                client.certificates().get(0).certificate();
            } catch (SigningException e) {
                System.out.println("listed: " + e.reason());
            }
            client.signCmsAttached(data, CmsOption.INCLUDE_CHAIN);
        } catch (SigningException e) {
            System.out.println("with chain: " + e.getMessage());
        }
        try {
            SigningClient.file(file).pin(pin).chainFile(file).open().close();
            System.out.println("with a chain's file: opened");
        } catch (SigningException e) {
            System.out.println("with a chain's file: " + e.number());
        }
    }
}
