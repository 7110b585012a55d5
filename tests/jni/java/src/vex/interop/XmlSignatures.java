package vex.interop;

import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.ByteArrayInputStream;
import java.io.ByteArrayOutputStream;
import java.nio.charset.StandardCharsets;
import java.nio.file.Path;
import java.security.GeneralSecurityException;
import java.security.Security;
import java.security.cert.X509Certificate;
import java.util.ArrayList;
import java.util.List;
import javax.xml.crypto.AlgorithmMethod;
import javax.xml.crypto.KeySelector;
import javax.xml.crypto.KeySelectorException;
import javax.xml.crypto.KeySelectorResult;
import javax.xml.crypto.XMLCryptoContext;
import javax.xml.crypto.XMLStructure;
import javax.xml.crypto.dsig.CanonicalizationMethod;
import javax.xml.crypto.dsig.DigestMethod;
import javax.xml.crypto.dsig.Reference;
import javax.xml.crypto.dsig.SignedInfo;
import javax.xml.crypto.dsig.Transform;
import javax.xml.crypto.dsig.XMLSignature;
import javax.xml.crypto.dsig.XMLSignatureFactory;
import javax.xml.crypto.dsig.dom.DOMSignContext;
import javax.xml.crypto.dsig.dom.DOMValidateContext;
import javax.xml.crypto.dsig.keyinfo.KeyInfo;
import javax.xml.crypto.dsig.keyinfo.KeyInfoFactory;
import javax.xml.crypto.dsig.keyinfo.X509Data;
import javax.xml.crypto.dsig.spec.C14NMethodParameterSpec;
import javax.xml.crypto.dsig.spec.TransformParameterSpec;
import javax.xml.parsers.DocumentBuilderFactory;
import javax.xml.transform.TransformerFactory;
import javax.xml.transform.dom.DOMSource;
import javax.xml.transform.stream.StreamResult;
import org.w3c.dom.Document;
import vex.client.SigningProvider;

/** Enveloped XML signatures of the JDK, with the certificates in them. */
final class XmlSignatures {
    private static final String DOCUMENT = "<debt><to>Alice</to><euros>100</euros></debt>";

    private XmlSignatures() {}

    static void verifiedByTheJdk(Signer signer) throws Exception {
        if (signer.kind() == KeyKind.RSA && signer.ours()) {
            assertTrue(isGood(sign(signer, "http://www.w3.org/2007/05/xmldsig-more#sha256-rsa-MGF1"), signer.root()));
        }
        byte[] signed = sign(signer);
        assertTrue(isGood(signed, signer.root()));
        assertFalse(isGood(changed(signed), signer.root()));
    }

    static void verifiedByXmlsec(Signer signer) throws Exception {
        byte[] signed = sign(signer);
        verifyWithXmlsec(signer, signed);
        assertThrows(AssertionError.class, () -> verifyWithXmlsec(signer, changed(signed)));
    }

    private static void verifyWithXmlsec(Signer signer, byte[] signed) throws Exception {
        Path file = signer.write("signed.xml", signed);
        signer.run("xmlsec1", "--verify", "--trusted-pem", "root.pem", file.toString());
    }

    private static byte[] changed(byte[] signed) {
        return new String(signed, StandardCharsets.UTF_8).replace("<euros>100", "<euros>900")
            .getBytes(StandardCharsets.UTF_8);
    }

    private static String method(KeyKind kind) {
        return switch (kind) {
            case RSA -> "http://www.w3.org/2001/04/xmldsig-more#rsa-sha256";
            case EC -> "http://www.w3.org/2001/04/xmldsig-more#ecdsa-sha256";
            case PSS -> "http://www.w3.org/2007/05/xmldsig-more#rsa-pss";
            case ED25519 -> "http://www.w3.org/2021/04/xmldsig-more#eddsa-ed25519";
        };
    }

    private static Document parse(byte[] xml) throws Exception {
        DocumentBuilderFactory factory = DocumentBuilderFactory.newInstance();
        factory.setNamespaceAware(true);
        return factory.newDocumentBuilder().parse(new ByteArrayInputStream(xml));
    }

    private static byte[] sign(Signer signer) throws Exception {
        return sign(signer, method(signer.kind()));
    }

    private static byte[] sign(Signer signer, String method) throws Exception {
        XMLSignatureFactory factory = XMLSignatureFactory.getInstance("DOM");
        Reference reference = factory.newReference("", factory.newDigestMethod(DigestMethod.SHA256, null),
            List.of(factory.newTransform(Transform.ENVELOPED, (TransformParameterSpec) null)), null, null);
        SignedInfo info = factory.newSignedInfo(
            factory.newCanonicalizationMethod(CanonicalizationMethod.EXCLUSIVE, (C14NMethodParameterSpec) null),
            factory.newSignatureMethod(method, null), List.of(reference));
        KeyInfoFactory keys = factory.getKeyInfoFactory();
        KeyInfo keyInfo = keys.newKeyInfo(List.of(keys.newX509Data(signer.withoutRoot())));

        Document document = parse(DOCUMENT.getBytes(StandardCharsets.UTF_8));
        DOMSignContext context = new DOMSignContext(signer.key(), document.getDocumentElement());
        if (method.endsWith("MGF1")) {
            context.setProperty("org.jcp.xml.dsig.internal.dom.SignatureProvider",
                Security.getProvider(SigningProvider.NAME));
        }
        factory.newXMLSignature(info, keyInfo).sign(context);
        ByteArrayOutputStream signed = new ByteArrayOutputStream();
        TransformerFactory.newInstance().newTransformer().transform(new DOMSource(document), new StreamResult(signed));
        return signed.toByteArray();
    }

    private static boolean isGood(byte[] signed, X509Certificate root) throws Exception {
        Document document = parse(signed);
        DOMValidateContext context = new DOMValidateContext(
            new TrustedKey(root), document.getElementsByTagNameNS(XMLSignature.XMLNS, "Signature").item(0));
        return XMLSignatureFactory.getInstance("DOM").unmarshalXMLSignature(context).validate(context);
    }

    /** Takes the key from the certificates in the signature if they lead to the root. */
    private static final class TrustedKey extends KeySelector {
        private final X509Certificate root;

        TrustedKey(X509Certificate root) {
            this.root = root;
        }

        @Override
        public KeySelectorResult select(KeyInfo keyInfo, Purpose purpose, AlgorithmMethod method,
                XMLCryptoContext context) throws KeySelectorException {
            List<X509Certificate> path = new ArrayList<>();
            for (XMLStructure structure : keyInfo.getContent()) {
                for (Object certificate : ((X509Data) structure).getContent()) {
                    path.add((X509Certificate) certificate);
                }
            }
            try {
                Trust.require(path, root);
            } catch (GeneralSecurityException e) {
                throw new KeySelectorException(e);
            }
            return path.get(0)::getPublicKey;
        }
    }
}
